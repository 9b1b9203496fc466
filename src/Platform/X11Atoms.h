#pragma once

#include <xcb/xcb.h>

// An X11 atom by name, interned on the given connection; XCB_ATOM_NONE when
// the server did not answer (a connection that broke).
xcb_atom_t internAtom(xcb_connection_t *connection, const char *name);
