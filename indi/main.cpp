// The driver's one device. libindidriver provides main() and dispatches the
// INDI protocol to every INDI::DefaultDevice that exists.
#include <memory>

#include "nkr_focuser.h"

static std::unique_ptr<NkrFocuser> focuser(new NkrFocuser());
