#pragma once

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// The names that windows, their clients and window managers use: Extended Window Manager Hints (EWMH) 1.5,
/// ICCCM 2.0.
struct WindowAtoms {
  explicit WindowAtoms(const X11Connection& connection);

  xcb_atom_t supportingWmCheck, supported, clientListStacking, clientList, currentDesktop;
  xcb_atom_t activeWindow, moveResize, frameExtents, invisibleExtents;
  xcb_atom_t pid, type, state, desktop, wmState;
  xcb_atom_t stateHidden, stateFullScreen, stateShaded, maximizedVertically, maximizedHorizontally;
  xcb_atom_t typeNormal, typeDialog, typeDesktop;
};

}  // namespace kestrune::linux_platform
