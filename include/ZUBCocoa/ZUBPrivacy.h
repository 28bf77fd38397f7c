// The user's choice about the shared device identifier.
//
// Besides the per-installation identifier and the server-assigned mid, the
// library reports an OpenUDID: a device-wide identifier that every cooperating
// application of the same user on the same machine shares (kept in
// ~/.local/share/ZUBCocoa/pasteboards). A host that offers its user a "do not
// share a device identifier" preference passes the choice here, at every launch,
// before ZUBPro::startWithAppKey:
//
//   zub::setOpenUDIDOptOut(prefs.shareDeviceId == false);
//
// Opted out, the application reports forty "0" characters instead of the
// identifier, to the identifier server and in the device description of its
// events; other applications of the user keep theirs. The choice is stored with the application's settings and
// lasts until it is changed. Called after the start, it applies to what is sent
// from then on; the identifiers handed to plug-ins (ZUBPro::getMainServicesInfo)
// are those of the first call of that function in the process.
// Thread-safe; never throws.
#pragma once

#include <ZUBCocoa/ZUBExport.h>

namespace zub {

/// true: stop sharing the OpenUDID; false: share it again.
ZUB_EXPORT void setOpenUDIDOptOut(bool optOut);

}  // namespace zub
