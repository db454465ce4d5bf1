#pragma once

#include <gst/gst.h>

namespace simulated_board {

// The GObject type `name`, registered on the first call. It is looked up by name, not kept in a
// static variable, because a process may load the plugin and link this code.
inline GType typeOnce(GType parent, const char* name, const GTypeInfo& info,
                      GTypeFlags flags = static_cast<GTypeFlags>(0)) {
  const GType known = g_type_from_name(name);
  return known != 0 ? known : g_type_register_static(parent, name, &info, flags);
}

inline void addPadTemplate(GstElementClass* element, const char* name, GstPadDirection direction,
                           const char* capsText) {
  g_autoptr(GstCaps) caps = gst_caps_from_string(capsText);
  gst_element_class_add_pad_template(element,
                                     gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps));
}

}  // namespace simulated_board
