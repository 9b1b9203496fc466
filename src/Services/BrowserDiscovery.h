#pragma once

#include "Models/BrowserInfo.h"
#include "Platform/DesktopEntries.h"

#include <QList>

// The browsers links can be routed to: every installed https handler but
// Quillvane, terminal emulators and other non-browsers, one per id, by name.
namespace BrowserDiscovery {

// The cached list; the first call runs a pass.
QList<BrowserInfo> discoverBrowsers(DesktopEntries &entries);
// Always a new pass, which replaces the cache.
QList<BrowserInfo> refreshBrowsers(DesktopEntries &entries);

// Whether links given to this entry would come straight back: Quillvane's own
// entry, or one whose Exec runs Quillvane or its forwarder (also behind env).
bool isQuillvane(const DesktopEntry &entry);

} // namespace BrowserDiscovery
