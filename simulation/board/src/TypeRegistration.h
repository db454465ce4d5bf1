#pragma once

#include <glib-object.h>

namespace simulated_board {

// The GObject type `name`, registered on the first call. It goes by name and not by a static
// variable because the plugin and a program that links this code may meet in one process.
inline GType typeOnce(GType parent, const char* name, const GTypeInfo& info,
                      GTypeFlags flags = static_cast<GTypeFlags>(0)) {
  const GType known = g_type_from_name(name);
  return known != 0 ? known : g_type_register_static(parent, name, &info, flags);
}

}  // namespace simulated_board
