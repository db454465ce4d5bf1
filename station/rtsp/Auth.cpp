#include "rtsp/Auth.h"

#include "base/Callback.h"
#include "base/Handles.h"
#include "serve/Authenticator.h"

namespace station {
namespace {

constexpr const char* kRole = "viewer";
constexpr const char* kEntry = "station-authenticator";

struct Entry {
  Entry(const Credentials& credentials, bool isEncrypted)
      : authenticator(credentials, Authenticator::Protocol::Rtsp, isEncrypted) {}
  ~Entry() { gst_rtsp_token_unref(token); }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  Authenticator authenticator;
  GstRTSPToken* const token =
      gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, kRole, nullptr);
};

void dropEntry(gpointer entry) {
  delete static_cast<Entry*>(entry);
}

Authenticator::Verdict judge(Authenticator& authenticator, const GstRTSPContext& context) {
  gchar* authorization = nullptr;
  gst_rtsp_message_get_header(context.request, GST_RTSP_HDR_AUTHORIZATION, &authorization, 0);
  const char* const address = gst_rtsp_connection_get_ip(context.conn);
  const char* const method = gst_rtsp_method_as_text(context.method);
  // Players compute the digest of the stream's URL for every request, or of the request's.
  return authenticator.check({gst_rtsp_connection_get_read_socket(context.conn),
                              address != nullptr ? address : "", authorization,
                              method != nullptr ? method : "", nullptr});
}

void refuse(const GstRTSPContext& context, const std::vector<std::string>& challenges) {
  const GstRTSPStatusCode status =
      challenges.empty() ? GST_RTSP_STS_SERVICE_UNAVAILABLE : GST_RTSP_STS_UNAUTHORIZED;
  gst_rtsp_message_init_response(context.response, status, gst_rtsp_status_as_text(status),
                                 context.request);
  for (const std::string& challenge : challenges) {
    gst_rtsp_message_add_header(context.response, GST_RTSP_HDR_WWW_AUTHENTICATE, challenge.c_str());
  }
  if (challenges.empty()) {
    gst_rtsp_message_add_header(context.response, GST_RTSP_HDR_RETRY_AFTER,
                                Authenticator::kRetryAfter);
  }
  // Without the session, whose time-out it would extend.
  gst_rtsp_client_send_message(context.client, nullptr, context.response);
}

// The library's own digest authentication keeps every nonce for 30 s, as many as clients ask for,
// and requires none for OPTIONS.
gboolean check(GstRTSPAuth* auth, GstRTSPContext* context, const gchar* what) {
  if (!g_str_equal(what, GST_RTSP_AUTH_CHECK_URL)) {
    auto* const parent = static_cast<GstRTSPAuthClass*>(g_type_class_peek(GST_TYPE_RTSP_AUTH));
    return parent->check(auth, context, what);
  }
  auto* const entry = static_cast<Entry*>(g_object_get_data(G_OBJECT(auth), kEntry));
  const Authenticator::Verdict verdict = judge(entry->authenticator, *context);
  if (!verdict.isAdmitted) {
    refuse(*context, verdict.challenges);
    return FALSE;
  }
  context->token = entry->token;  // borrowed: a reference would never be given back
  return TRUE;
}

void initialiseClass(gpointer type, gpointer /*unused*/) {
  GST_RTSP_AUTH_CLASS(type)->check = guarded<check>;
}

GType authType() {
  static const GType kType = g_type_register_static_simple(
      GST_TYPE_RTSP_AUTH, "StationRtspAuth", sizeof(GstRTSPAuthClass), initialiseClass,
      sizeof(GstRTSPAuth), nullptr, static_cast<GTypeFlags>(0));
  return kType;
}

}  // namespace

void requirePassword(GstRTSPServer* server, GstRTSPMediaFactory* factory,
                     const Credentials& credentials, bool isEncrypted) {
  const GstPtr<GstRTSPAuth> auth(GST_RTSP_AUTH(g_object_new(authType(), nullptr)));
  g_object_set_data_full(G_OBJECT(auth.get()), kEntry, new Entry(credentials, isEncrypted),
                         dropEntry);
  gst_rtsp_server_set_auth(server, auth.get());
  gst_rtsp_media_factory_add_role(factory, kRole, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                  G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                  G_TYPE_BOOLEAN, TRUE, nullptr);
}

}  // namespace station
