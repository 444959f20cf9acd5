"""Where the SDK was installed. `cmake --install` rewrites this file with the
installed paths; in a source tree or a pip install both are unknown (None)."""
from __future__ import annotations

LIBRARY: str | None = None
SIM_LIBRARY: str | None = None
HOST_LIBRARY: str | None = None
