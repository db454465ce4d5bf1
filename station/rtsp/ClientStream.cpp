#include "rtsp/ClientStream.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>

#include "base/Callback.h"
#include "serve/Client.h"
#include "serve/Tls.h"

namespace station {
namespace {

constexpr const char* kLinkKey = "station-rtsp-link";
constexpr std::chrono::seconds kActivityInterval{1};
constexpr std::chrono::seconds kMostBusy{2};
constexpr gint kBusyCheckMilliseconds = 5;

using std::chrono::steady_clock;

struct Link {
  std::unique_ptr<ClientLink> client;
  GSocket* socket;        // whose data this is
  GOutputStream* output;  // the connection's, while that lives
  steady_clock::time_point active;
  std::optional<steady_clock::time_point> heldSince;
};

Link* linkOf(GSocket* socket) {
  return static_cast<Link*>(g_object_get_data(G_OBJECT(socket), kLinkKey));
}

// Pollable input stream of the filter's output.
struct FilteredInput {
  GFilterInputStream parent;
  Link* link;
};

FilteredInput* asFilteredInput(gpointer object) {
  return static_cast<FilteredInput*>(object);
}

GPollableInputStream* baseStreamOf(gpointer input) {
  return G_POLLABLE_INPUT_STREAM(
      g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(input)));
}

// Whether the filter's output has to wait, as ClientLink::isBusy says.
bool isHeld(Link& link) {
  if (link.client->filter.output().empty() || !link.client->isBusy()) {
    link.heldSince.reset();
    return false;
  }
  const steady_clock::time_point now = steady_clock::now();
  link.heldSince = link.heldSince.value_or(now);
  return now - *link.heldSince < kMostBusy;
}

gboolean isReadable(GPollableInputStream* input) {
  Link& link = *asFilteredInput(input)->link;
  const ClientFilter& filter = link.client->filter;
  return static_cast<gboolean>(filter.output().empty() ? filter.refusal().has_value()
                                                       : !isHeld(link));
}

void noteActivity(Link& link) {
  const steady_clock::time_point now = steady_clock::now();
  if (link.client->filter.takeActivity() && now - link.active >= kActivityInterval) {
    link.active = now;
    link.client->onActivity(link.client->filter.owner());
  }
}

// Sends the response without blocking: it is short, and a client with a full socket misses it.
gssize endRefused(Link& link, GError** error) {
  const ClientFilter::Refusal& refusal = *link.client->filter.refusal();
  if (!refusal.answer.empty()) {
    g_pollable_output_stream_write_nonblocking(G_POLLABLE_OUTPUT_STREAM(link.output),
                                               refusal.answer.data(), refusal.answer.size(),
                                               nullptr, nullptr);
  }
  Client::disconnect(link.socket, refusal.event, refusal.reason);
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, refusal.reason.c_str());
  return -1;
}

gssize takeOutput(ClientFilter& filter, void* buffer, gsize size) {
  std::string& output = filter.output();
  const gsize count = std::min(size, output.size());
  std::memcpy(buffer, output.data(), count);
  output.erase(0, count);
  return static_cast<gssize>(count);
}

// Reads at most 4 KiB per call: other clients wait for the same thread.
gssize readNonblocking(GPollableInputStream* input, void* buffer, gsize size, GError** error) {
  Link& link = *asFilteredInput(input)->link;
  ClientFilter& filter = link.client->filter;
  if (filter.output().empty() && !filter.refusal()) {
    char bytes[4096];
    g_autoptr(GError) failure = nullptr;
    const gssize count = g_pollable_input_stream_read_nonblocking(baseStreamOf(input), bytes,
                                                                  sizeof(bytes), nullptr, &failure);
    if (count > 0) {
      filter.push({bytes, static_cast<std::size_t>(count)}, steady_clock::now());
      noteActivity(link);
    } else if (count == 0) {
      return 0;
    } else if (!g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      g_propagate_error(error, g_steal_pointer(&failure));
      return -1;
    }
    filter.checkTime(steady_clock::now());
  }
  if (!filter.output().empty() && !isHeld(link)) {
    return takeOutput(filter, buffer, size);
  }
  if (filter.output().empty() && filter.refusal()) {
    return endRefused(link, error);
  }
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "nothing complete has come");
  return -1;
}

gssize readBlocking(GInputStream* /*input*/, void* /*buffer*/, gsize /*size*/,
                    GCancellable* /*cancellable*/, GError** error) {
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "the library does not wait");
  return -1;
}

// Ready when the filter has output, when the base stream is readable, and at the filter's deadline.
struct InputSource {
  GSource parent;
  FilteredInput* input;  // see inputOf()
};

// Atomic for the thread sanitizer, which sees no lock of GLib between the thread that attaches the
// source and the one that runs it.
FilteredInput* inputOf(GSource* source) {
  return static_cast<FilteredInput*>(
      g_atomic_pointer_get(&reinterpret_cast<InputSource*>(source)->input));
}

gboolean checkSource(GSource* source) {
  FilteredInput* const input = inputOf(source);
  const auto deadline = input->link->client->filter.deadline();
  return static_cast<gboolean>(isReadable(G_POLLABLE_INPUT_STREAM(input)) ||
                               (deadline && steady_clock::now() >= *deadline));
}

gboolean prepareSource(GSource* source, gint* timeout) {
  Link& link = *inputOf(source)->link;
  const auto deadline = link.client->filter.deadline();
  *timeout = -1;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - steady_clock::now());
    *timeout = static_cast<gint>(std::max(left.count(), std::chrono::milliseconds::rep{0}));
  }
  if (isHeld(link)) {
    *timeout = kBusyCheckMilliseconds;
  }
  return checkSource(source);
}

gboolean dispatchSource(GSource* source, GSourceFunc callback, gpointer data) {
  const auto call = reinterpret_cast<GPollableSourceFunc>(reinterpret_cast<void (*)()>(callback));
  const std::shared_ptr<RequestClock> clock = inputOf(source)->link->client->clock;
  clock->begin();
  const gboolean again = call(G_OBJECT(inputOf(source)), data);
  clock->end();
  return again;
}

void finalizeSource(GSource* source) {
  g_object_unref(inputOf(source));
}

GSource* createSource(GPollableInputStream* input, GCancellable* cancellable) {
  static GSourceFuncs functions = {prepareSource,  checkSource, dispatchSource,
                                   finalizeSource, nullptr,     nullptr};
  GSource* const source = g_source_new(&functions, sizeof(InputSource));
  g_atomic_pointer_set(&reinterpret_cast<InputSource*>(source)->input,
                       asFilteredInput(g_object_ref(input)));
  g_autoptr(GSource) base = g_pollable_input_stream_create_source(baseStreamOf(input), cancellable);
  g_source_set_dummy_callback(base);
  g_source_add_child_source(source, base);
  return source;
}

void setUpPollable(gpointer interface, gpointer /*unused*/) {
  auto* const pollable = static_cast<GPollableInputStreamInterface*>(interface);
  pollable->is_readable = guarded<isReadable>;
  pollable->create_source = createSource;
  pollable->read_nonblocking = guarded<readNonblocking>;
}

void setUpInput(gpointer type, gpointer /*unused*/) {
  G_INPUT_STREAM_CLASS(type)->read_fn = readBlocking;
}

GType inputType() {
  static const GType kType = [] {
    const GType type = g_type_register_static_simple(
        G_TYPE_FILTER_INPUT_STREAM, "StationRtspInput", sizeof(GFilterInputStreamClass), setUpInput,
        sizeof(FilteredInput), nullptr, static_cast<GTypeFlags>(0));
    const GInterfaceInfo pollable = {setUpPollable, nullptr, nullptr};
    g_type_add_interface_static(type, G_TYPE_POLLABLE_INPUT_STREAM, &pollable);
    return type;
  }();
  return kType;
}

// The streams of a connection, as its data.
struct Streams {
  Link* link;
  GIOStream* tls;  // over another connection of the same socket, or null
  GInputStream* input;
};

GIOStreamClass* originalClass() {
  static void* const kClass = g_type_class_ref(G_TYPE_SOCKET_CONNECTION);
  return G_IO_STREAM_CLASS(kClass);
}

// Shuts the socket down first: closing TLS sends close_notify and waits for the client.
void dropStreams(gpointer data) {
  auto* const streams = static_cast<Streams*>(data);
  g_socket_shutdown(streams->link->socket, TRUE, TRUE, nullptr);
  g_clear_object(&streams->tls);
  g_object_unref(streams->input);
  delete streams;
}

Streams* makeStreams(GIOStream* connection, Link& link) {
  GIOStream* tls = nullptr;
  if (link.client->certificate != nullptr) {
    g_autoptr(GIOStream) plain =
        G_IO_STREAM(g_object_new(G_TYPE_SOCKET_CONNECTION, "socket", link.socket, nullptr));
    tls = newTlsStream(plain, link.client->certificate);
  }
  link.output = tls != nullptr ? g_io_stream_get_output_stream(tls)
                               : originalClass()->get_output_stream(connection);
  GInputStream* const base = tls != nullptr ? g_io_stream_get_input_stream(tls)
                                            : originalClass()->get_input_stream(connection);
  auto* const input = G_INPUT_STREAM(g_object_new(inputType(), "base-stream", base, nullptr));
  asFilteredInput(input)->link = &link;
  return new Streams{&link, tls, input};
}

// Null for a socket without a link.
Streams* streamsOf(GIOStream* connection) {
  Link* const link = linkOf(g_socket_connection_get_socket(G_SOCKET_CONNECTION(connection)));
  auto* streams = static_cast<Streams*>(g_object_get_data(G_OBJECT(connection), kLinkKey));
  if (link != nullptr && streams == nullptr) {
    streams = makeStreams(connection, *link);
    g_object_set_data_full(G_OBJECT(connection), kLinkKey, streams, dropStreams);
  }
  return streams;
}

GInputStream* getInput(GIOStream* connection) {
  Streams* const streams = streamsOf(connection);
  return streams != nullptr ? streams->input : originalClass()->get_input_stream(connection);
}

GOutputStream* getOutput(GIOStream* connection) {
  Streams* const streams = streamsOf(connection);
  return streams != nullptr ? streams->link->output
                            : originalClass()->get_output_stream(connection);
}

// Changes the class GTcpConnection, of which GIO's factory makes the library's connections. A class
// of our own cannot be registered there: g_socket_connection_factory_register_type(), in
// GLib 2.90.1 as well, passes its new entry to g_hash_table_insert() as key and as value. As there
// is an entry for TCP, that frees the key.
void replaceStreams() {
  auto* const type = G_IO_STREAM_CLASS(g_type_class_ref(G_TYPE_TCP_CONNECTION));
  type->get_input_stream = getInput;
  type->get_output_stream = getOutput;
}

}  // namespace

void attachLink(GSocket* socket, std::unique_ptr<ClientLink> link) {
  static std::once_flag replaced;
  std::call_once(replaced, replaceStreams);
  g_object_set_data_full(G_OBJECT(socket), kLinkKey,
                         new Link{std::move(link), socket, nullptr, {}, {}},
                         [](gpointer data) { delete static_cast<Link*>(data); });
}

const std::string& ownerOf(GSocket* socket) {
  return linkOf(socket)->client->filter.owner();
}

}  // namespace station
