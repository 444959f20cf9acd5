"""A build back end for the nkr package that needs nothing but the standard library.

pip builds in an isolated environment and would otherwise have to download
setuptools and wheel first, which fails on an offline telescope computer or
with a Python that lacks them. The package is pure Python, so a wheel is only
a zip file of the sources plus three metadata files; writing it here keeps the
documented `pip install ./python` working with any Python 3, offline.
"""

import base64
import hashlib
import io
import os
import re
import tarfile
import zipfile

_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_PACKAGE = "nkr"
_DATA = (".py", ".json", ".typed")


def _project():
    with open(os.path.join(_ROOT, "pyproject.toml"), encoding="utf-8") as f:
        text = f.read()
    project = text.split("[project]", 1)[1].split("\n[", 1)[0]

    def field(key):
        match = re.search(r'^%s\s*=\s*"([^"]*)"' % key, project, re.M)
        return match.group(1) if match else ""

    classifiers = re.findall(r'^\s*"([^"]+ :: [^"]+)"', project, re.M)
    return field("name"), field("version"), field("description"), field("requires-python"), classifiers


def _metadata():
    name, version, summary, requires, classifiers = _project()
    lines = ["Metadata-Version: 2.1", "Name: " + name, "Version: " + version, "Summary: " + summary]
    if requires:
        lines.append("Requires-Python: " + requires)
    lines += ["Classifier: " + c for c in classifiers]
    readme = os.path.join(_ROOT, "README.md")
    body = ""
    if os.path.exists(readme):
        lines.append("Description-Content-Type: text/markdown")
        with open(readme, encoding="utf-8") as f:
            body = "\n" + f.read()
    return name, version, "\n".join(lines) + "\n" + body


def _sources():
    """Every file of the package, as (name in the archive, bytes); symlinks are read through."""
    base = os.path.join(_ROOT, _PACKAGE)
    for entry in sorted(os.listdir(base)):
        path = os.path.join(base, entry)
        if os.path.isfile(path) and entry.endswith(_DATA):
            with open(path, "rb") as f:
                yield _PACKAGE + "/" + entry, f.read()


def _digest(data):
    raw = hashlib.sha256(data).digest()
    return "sha256=" + base64.urlsafe_b64encode(raw).rstrip(b"=").decode(), str(len(data))


def _dist_info_files():
    name, version, metadata = _metadata()
    wheel = "Wheel-Version: 1.0\nGenerator: nkr_build\nRoot-Is-Purelib: true\nTag: py3-none-any\n"
    info = "%s-%s.dist-info" % (name, version)
    return name, version, info, [(info + "/METADATA", metadata.encode()), (info + "/WHEEL", wheel.encode())]


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


get_requires_for_build_editable = get_requires_for_build_wheel


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    _, _, info, files = _dist_info_files()
    for arcname, data in files:
        path = os.path.join(metadata_directory, arcname)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
    return info


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def _write_wheel(directory, payload):
    name, version, info, files = _dist_info_files()
    filename = "%s-%s-py3-none-any.whl" % (name, version)
    record = []
    with zipfile.ZipFile(os.path.join(directory, filename), "w", zipfile.ZIP_DEFLATED) as whl:
        for arcname, data in list(payload) + files:
            whl.writestr(arcname, data)
            record.append("%s,%s,%s" % ((arcname,) + _digest(data)))
        record.append(info + "/RECORD,,")
        whl.writestr(info + "/RECORD", "\n".join(record) + "\n")
    return filename


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, _sources())


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # A path file puts the source tree on sys.path: edits take effect at once.
    return _write_wheel(wheel_directory, [(_PACKAGE + "-editable.pth", (_ROOT + "\n").encode())])


def build_sdist(sdist_directory, config_settings=None):
    name, version, _, _ = _dist_info_files()
    stem = "%s-%s" % (name, version)
    filename = stem + ".tar.gz"
    with tarfile.open(os.path.join(sdist_directory, filename), "w:gz") as tar:
        def add(arcname, data):
            member = tarfile.TarInfo(stem + "/" + arcname)
            member.size = len(data)
            member.mode = 0o644
            tar.addfile(member, io.BytesIO(data))
        for rel in ("pyproject.toml", "README.md", "_build/nkr_build.py"):
            path = os.path.join(_ROOT, rel)
            if os.path.exists(path):
                with open(path, "rb") as f:
                    add(rel, f.read())
        for arcname, data in _sources():
            add(arcname, data)
        add("PKG-INFO", _metadata()[2].encode())
    return filename
