#include "agent/metrics_server.h"

#include <microhttpd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "agent/diagnostics.h"
#include "agent/endpoint.h"

namespace agent {

namespace {

/// Answers with a copy of the text.
MHD_Result answer(MHD_Connection *to, unsigned status, std::string_view text, const char *type) {
  MHD_Response *response = MHD_create_response_from_buffer(
      text.size(), const_cast<char *>(text.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  const MHD_Result queued = MHD_queue_response(to, status, response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result serve(void *context, MHD_Connection *from, const char *url, const char *method,
                 const char *, const char *, size_t *, void **) {
  constexpr const char *kText = "text/plain; charset=utf-8";
  const std::string_view how = method;
  if (how != MHD_HTTP_METHOD_GET && how != MHD_HTTP_METHOD_HEAD)
    return answer(from, MHD_HTTP_METHOD_NOT_ALLOWED, "GET and HEAD alone\n", kText);
  if (std::string_view(url) != "/metrics")
    return answer(from, MHD_HTTP_NOT_FOUND, "see /metrics\n", kText);
  try {
    const std::string page = static_cast<const metrics_server *>(context)->page();
    return answer(from, MHD_HTTP_OK, page, "text/plain; version=0.0.4; charset=utf-8");
  } catch (const std::bad_alloc &) {
    return answer(from, MHD_HTTP_SERVICE_UNAVAILABLE, "out of memory\n", kText);
  }
}

}  // namespace

metrics_server::metrics_server(std::function<std::string()> page) : page_(std::move(page)) {}

metrics_server::~metrics_server() { close(); }

std::string metrics_server::listen(const std::string &address_port) {
  sockaddr_in endpoint{};
  const std::string wrong = parse_endpoint(address_port, endpoint);
  if (!wrong.empty()) return "metrics on " + address_port + ": " + wrong;
  errno = 0;
  daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, 0, nullptr, nullptr, serve, this,
                             MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr *>(&endpoint),
                             MHD_OPTION_CONNECTION_LIMIT, kMaxConnections,
                             MHD_OPTION_CONNECTION_TIMEOUT, kTimeoutSeconds, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    return "metrics on " + address_port + ": " + (errno != 0 ? strerror(errno) : "no server");
  }
  const MHD_DaemonInfo *info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
  if (info != nullptr) endpoint.sin_port = htons(info->port);
  diagnose("tarvo-agent: metrics on " + endpoint_text(endpoint));
  return {};
}

void metrics_server::close() {
  if (daemon_ != nullptr) MHD_stop_daemon(std::exchange(daemon_, nullptr));
}

}  // namespace agent
