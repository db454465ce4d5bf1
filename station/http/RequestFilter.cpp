#include "http/RequestFilter.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Callback.h"
#include "http/Message.h"
#include "serve/Client.h"
#include "serve/Tls.h"

namespace {

struct RequestFilter {
  GObject object;
  GSocket* socket;        // owned by the object's data
  GOutputStream* output;  // likewise
  char line[64];          // beginning of the current line
  gsize length;           // of that
  gboolean ended;
};

constexpr std::string_view kCoding = "transfer-encoding";
constexpr std::string_view kLength = "content-length";

bool begins(std::string_view line, std::string_view name) {
  return line.size() >= name.size() &&
         g_ascii_strncasecmp(line.data(), name.data(), name.size()) == 0;
}

bool isNumber(std::string_view value) {
  constexpr std::size_t kMostDigits = 18;  // always below 2^63
  return !value.empty() && value.size() <= kMostDigits &&
         value.find_first_not_of("0123456789") == std::string_view::npos;
}

// Whether libsoup mishandles a request with this header line.
bool isMishandled(std::string_view line) {
  if (!begins(line, kLength)) {
    return begins(line, kCoding);
  }
  std::string_view value = line.substr(kLength.size());
  value.remove_prefix(std::min(value.find_first_not_of(" \t:"), value.size()));
  value = value.substr(0, value.find_last_not_of(" \t\r") + 1);
  return !isNumber(value) || line.size() == sizeof(RequestFilter::line);  // may be cut off
}

// Takes the request's next character; whether it has to be refused.
bool isRefused(RequestFilter& filter, char character) {
  if (filter.ended != FALSE) {
    const bool goesOn =
        (character == ' ' || character == '\t') && begins({filter.line, filter.length}, kLength);
    filter.ended = FALSE;
    filter.length = 0;
    if (goesOn) {
      return true;
    }
  }
  if (character == '\n') {
    filter.ended = TRUE;
    return isMishandled({filter.line, filter.length});
  }
  if (filter.length < sizeof(filter.line)) {
    filter.line[filter.length++] = character;
  }
  return character == '\0';  // libsoup strips it before it parses
}

std::string refusal() {
  std::string text = "HTTP/1.1 501 Not Implemented\r\nConnection: close\r\nContent-Length: 0\r\n";
  for (const auto& [name, value] : station::kProtectiveHeaders) {
    text += std::string(name) + ": " + value + "\r\n";
  }
  return text + "\r\n";
}

GConverterResult refuse(const RequestFilter& filter, GError** error) {
  const std::string answer = refusal();
  g_pollable_output_stream_write_nonblocking(G_POLLABLE_OUTPUT_STREAM(filter.output), answer.data(),
                                             answer.size(), nullptr, nullptr);
  station::Client::disconnect(filter.socket, station::ClientEvent::Request,
                              "its request may have a body");
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "a request is refused");
  return G_CONVERTER_ERROR;
}

GConverterResult convert(GConverter* self, const void* input, gsize inputSize, void* output,
                         gsize outputSize, GConverterFlags flags, gsize* bytesRead,
                         gsize* bytesWritten, GError** error) {
  auto& filter = *reinterpret_cast<RequestFilter*>(self);
  const gsize size = std::min(inputSize, outputSize);
  if (size == 0) {
    if ((flags & G_CONVERTER_INPUT_AT_END) != 0) {
      return isMishandled({filter.line, filter.length}) ? refuse(filter, error)
                                                        : G_CONVERTER_FINISHED;
    }
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT, "nothing has come");
    return G_CONVERTER_ERROR;
  }
  for (const char character : std::string_view(static_cast<const char*>(input), size)) {
    if (isRefused(filter, character)) {
      return refuse(filter, error);
    }
  }
  station::Client::noteActivity(filter.socket);
  std::memcpy(output, input, size);
  *bytesRead = *bytesWritten = size;
  return G_CONVERTER_CONVERTED;
}

void reset(GConverter* self) {
  auto& filter = *reinterpret_cast<RequestFilter*>(self);
  filter.length = 0;
  filter.ended = FALSE;
}

void setUpConverter(gpointer interface, gpointer /*unused*/) {
  static_cast<GConverterIface*>(interface)->convert = station::guarded<convert>;
  static_cast<GConverterIface*>(interface)->reset = reset;
}

GType filterType() {
  static const GType kType = [] {
    const GType type = g_type_register_static_simple(
        G_TYPE_OBJECT, "StationHttpRequestFilter", sizeof(GObjectClass), nullptr,
        sizeof(RequestFilter), nullptr, static_cast<GTypeFlags>(0));
    const GInterfaceInfo converter = {setUpConverter, nullptr, nullptr};
    g_type_add_interface_static(type, G_TYPE_CONVERTER, &converter);
    return type;
  }();
  return kType;
}

// A client's stream: TLS or its connection, with a filtered input.
struct ClientStream {
  GIOStream parent;
  GSocket* socket;
  GIOStream* base;
  GInputStream* input;
};

ClientStream* asClientStream(gpointer object) {
  return static_cast<ClientStream*>(object);
}

// At once: TLS would wait for a client that does not read, to say goodbye to it.
gboolean closeStream(GIOStream* stream, GCancellable* /*cancellable*/, GError** error) {
  return g_socket_shutdown(asClientStream(stream)->socket, TRUE, TRUE, error);
}

void finalizeStream(GObject* object) {
  ClientStream* const stream = asClientStream(object);
  g_object_unref(stream->input);
  g_object_unref(stream->base);
  g_object_unref(stream->socket);
  G_OBJECT_CLASS(g_type_class_peek_static(G_TYPE_IO_STREAM))->finalize(object);
}

void setUpStream(gpointer type, gpointer /*unused*/) {
  G_OBJECT_CLASS(type)->finalize = finalizeStream;
  auto* const stream = G_IO_STREAM_CLASS(type);
  stream->close_fn = closeStream;
  stream->get_input_stream = [](GIOStream* self) { return asClientStream(self)->input; };
  stream->get_output_stream = [](GIOStream* self) {
    return g_io_stream_get_output_stream(asClientStream(self)->base);
  };
}

GType streamType() {
  static const GType kType = g_type_register_static_simple(
      G_TYPE_IO_STREAM, "StationHttpStream", sizeof(GIOStreamClass), setUpStream,
      sizeof(ClientStream), nullptr, static_cast<GTypeFlags>(0));
  return kType;
}

}  // namespace

namespace station {

GIOStream* filterHttpRequests(GSocketConnection* connection, GTlsCertificate* certificate) {
  GSocket* const socket = g_socket_connection_get_socket(connection);
  auto* const stream = static_cast<ClientStream*>(g_object_new(streamType(), nullptr));
  stream->socket = G_SOCKET(g_object_ref(socket));
  stream->base = certificate != nullptr ? newTlsStream(G_IO_STREAM(connection), certificate)
                                        : G_IO_STREAM(g_object_ref(connection));
  GOutputStream* const output = g_io_stream_get_output_stream(stream->base);
  g_autoptr(GObject) filter = G_OBJECT(g_object_new(filterType(), nullptr));
  reinterpret_cast<RequestFilter*>(filter)->socket = socket;
  reinterpret_cast<RequestFilter*>(filter)->output = output;
  g_object_set_data_full(filter, "station-socket", g_object_ref(socket), g_object_unref);
  g_object_set_data_full(filter, "station-output", g_object_ref(output), g_object_unref);
  stream->input =
      g_converter_input_stream_new(g_io_stream_get_input_stream(stream->base), G_CONVERTER(filter));
  return G_IO_STREAM(stream);
}

}  // namespace station
