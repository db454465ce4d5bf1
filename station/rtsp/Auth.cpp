#include "rtsp/Auth.h"

#include "base/Callback.h"
#include "base/Handles.h"
#include "serve/Client.h"

namespace station {
namespace {

constexpr const char* kRole = "viewer";
constexpr const char* kEntry = "station-credentials";

struct Entry {
  explicit Entry(const Credentials& wanted) : credentials(wanted) {}
  ~Entry() { gst_rtsp_token_unref(token); }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  const Credentials credentials;
  GstRTSPToken* const token =
      gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, kRole, nullptr);
};

void dropEntry(gpointer entry) {
  delete static_cast<Entry*>(entry);
}

bool matchRequest(const Credentials& credentials, const GstRTSPContext& context) {
  GstRTSPAuthCredential** const given =
      gst_rtsp_message_parse_auth_credentials(context.request, GST_RTSP_HDR_AUTHORIZATION);
  const bool any = given != nullptr && *given != nullptr;
  bool matches = false;
  for (GstRTSPAuthCredential** item = given; item != nullptr && *item != nullptr; ++item) {
    matches =
        matches || ((*item)->scheme == GST_RTSP_AUTH_BASIC && (*item)->authorization != nullptr &&
                    credentials.matchBasic((*item)->authorization));
  }
  gst_rtsp_auth_credentials_free(given);
  if (any && !matches) {
    Client::refuse(gst_rtsp_connection_get_read_socket(context.conn), "wrong user or password");
  }
  return matches;
}

// The library's own basic authentication compares in a time that depends on the password.
gboolean authenticate(GstRTSPAuth* auth, GstRTSPContext* context) {
  if (context->token != nullptr) {
    return TRUE;
  }
  const auto* const entry = static_cast<const Entry*>(g_object_get_data(G_OBJECT(auth), kEntry));
  if (matchRequest(entry->credentials, *context)) {
#if GST_CHECK_VERSION(1, 22, 0)
    gst_rtsp_context_set_token(context, entry->token);
#else
    context->token = entry->token;  // borrowed, as the library's own
#endif
  }
  return TRUE;
}

void initialiseClass(gpointer type, gpointer /*unused*/) {
  GST_RTSP_AUTH_CLASS(type)->authenticate = guarded<authenticate>;
}

GType authType() {
  static const GType kType = g_type_register_static_simple(
      GST_TYPE_RTSP_AUTH, "StationRtspAuth", sizeof(GstRTSPAuthClass), initialiseClass,
      sizeof(GstRTSPAuth), nullptr, static_cast<GTypeFlags>(0));
  return kType;
}

}  // namespace

void requirePassword(GstRTSPServer* server, GstRTSPMediaFactory* factory,
                     const Credentials& credentials) {
  const GstPtr<GstRTSPAuth> auth(GST_RTSP_AUTH(g_object_new(authType(), nullptr)));
  g_object_set_data_full(G_OBJECT(auth.get()), kEntry, new Entry(credentials), dropEntry);
  gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_BASIC);
  gst_rtsp_server_set_auth(server, auth.get());
  gst_rtsp_media_factory_add_role(factory, kRole, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                  G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                  G_TYPE_BOOLEAN, TRUE, nullptr);
}

}  // namespace station
