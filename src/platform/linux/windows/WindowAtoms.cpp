#include "platform/linux/windows/WindowAtoms.h"

#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/x11/X11Properties.h"

namespace kestrune::linux_platform {

WindowAtoms::WindowAtoms(const X11Connection& connection) {
  const std::vector<std::pair<xcb_atom_t*, std::string_view>> names = {
      {&supportingWmCheck, "_NET_SUPPORTING_WM_CHECK"},
      {&supported, "_NET_SUPPORTED"},
      {&clientListStacking, "_NET_CLIENT_LIST_STACKING"},
      {&clientList, "_NET_CLIENT_LIST"},
      {&currentDesktop, "_NET_CURRENT_DESKTOP"},
      {&activeWindow, "_NET_ACTIVE_WINDOW"},
      {&moveResize, "_NET_MOVERESIZE_WINDOW"},
      {&frameExtents, "_NET_FRAME_EXTENTS"},
      {&invisibleExtents, "_GTK_FRAME_EXTENTS"},
      {&pid, "_NET_WM_PID"},
      {&type, "_NET_WM_WINDOW_TYPE"},
      {&state, "_NET_WM_STATE"},
      {&desktop, "_NET_WM_DESKTOP"},
      {&wmState, "WM_STATE"},
      {&stateHidden, "_NET_WM_STATE_HIDDEN"},
      {&stateFullScreen, "_NET_WM_STATE_FULLSCREEN"},
      {&stateShaded, "_NET_WM_STATE_SHADED"},
      {&maximizedVertically, "_NET_WM_STATE_MAXIMIZED_VERT"},
      {&maximizedHorizontally, "_NET_WM_STATE_MAXIMIZED_HORZ"},
      {&typeNormal, "_NET_WM_WINDOW_TYPE_NORMAL"},
      {&typeDialog, "_NET_WM_WINDOW_TYPE_DIALOG"},
      {&typeDesktop, "_NET_WM_WINDOW_TYPE_DESKTOP"},
  };
  std::vector<std::string_view> texts;
  texts.reserve(names.size());
  for (const auto& [atom, name] : names) texts.push_back(name);
  const auto atoms = internAtoms(connection, texts);
  for (std::size_t index = 0; index < names.size(); ++index) *names[index].first = atoms[index];
}

}  // namespace kestrune::linux_platform
