#include "rtsp/Sessions.h"

#include "base/Callback.h"
#include "rtsp/ClientStream.h"

namespace station {
namespace {

gchar* createSessionId(GstRTSPSessionPool* /*pool*/) {
  GSocket* const socket = gst_rtsp_connection_get_read_socket(gst_rtsp_context_get_current()->conn);
  g_autofree gchar* random = g_uuid_string_random();
  return g_strdup((ownerOf(socket) + "-" + random).c_str());
}

void setUpPool(gpointer type, gpointer /*unused*/) {
  GST_RTSP_SESSION_POOL_CLASS(type)->create_session_id = guarded<createSessionId>;
}

GType poolType() {
  static const GType kType = g_type_register_static_simple(
      GST_TYPE_RTSP_SESSION_POOL, "StationRtspSessionPool", sizeof(GstRTSPSessionPoolClass),
      setUpPool, sizeof(GstRTSPSessionPool), nullptr, static_cast<GTypeFlags>(0));
  return kType;
}

GstRTSPFilterResult touchIfOwned(GstRTSPSessionPool* /*pool*/, GstRTSPSession* session,
                                 gpointer prefix) {
  if (g_str_has_prefix(gst_rtsp_session_get_sessionid(session),
                       static_cast<const std::string*>(prefix)->c_str())) {
    gst_rtsp_session_touch(session);
  }
  return GST_RTSP_FILTER_KEEP;
}

}  // namespace

GstRTSPSessionPool* newSessionPool(unsigned int maxSessions) {
  auto* const pool = GST_RTSP_SESSION_POOL(g_object_new(poolType(), nullptr));
  gst_rtsp_session_pool_set_max_sessions(pool, maxSessions);
  return pool;
}

void touchSessions(GstRTSPSessionPool* pool, const std::string& owner) {
  std::string prefix = owner + "-";
  // Returns a list of those that touchIfOwned() picks: none.
  g_list_free(gst_rtsp_session_pool_filter(pool, touchIfOwned, &prefix));
}

bool hasSession(GstRTSPClient* client) {
  GList* const sessions = gst_rtsp_client_session_filter(client, nullptr, nullptr);
  const bool any = sessions != nullptr;
  g_list_free_full(sessions, g_object_unref);
  return any;
}

}  // namespace station
