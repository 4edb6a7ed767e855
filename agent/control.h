// The control socket: the commands of standard input, from other processes.
//
// A client sends lines. To each it gets an answer: lines, ended by an empty line; the first begins
// with "error: " when the command was refused (no other answer begins so). After a line `json`, up
// to a line `text`, answers are JSON objects, a line each, and a refusal is
// {"schema":1,"error":...}. Notifications go to standard output, whoever watches. `quit` ends the
// connection.
//
// The main thread polls and serves. It never waits for a client: what one doesn't take at once is
// kept, up to kMaxUnsent, and until it is taken the client's further lines are not read. Idle
// clients may stay; the number of all is bounded.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "agent/command.h"
#include "agent/descriptor.h"
#include "agent/show.h"

namespace agent {

class control {
 public:
  static constexpr size_t kMaxClients = 8;
  static constexpr size_t kMaxUnsent = size_t{32} << 20;

  struct answer {
    std::string lines;    ///< with their ends
    command_error error;  ///< why the command was refused, if it was
    bool leave = false;
  };
  /// Runs a line.
  using runner = std::function<answer(const std::string &line, show_as as)>;

  explicit control(runner run);
  ~control();
  control(const control &) = delete;
  control &operator=(const control &) = delete;

  /// Listens. An empty string, or what failed. A socket that nobody listens on any more is
  /// replaced; anything else of that name stays.
  std::string open(const std::string &path, mode_t mode);
  /// Closes all, and removes the socket unless another one has its name by now.
  void close();
  bool is_open() const { return listener_.number >= 0; }

  /// Appends what to poll; serve() gets the same places after poll().
  void add_polled(std::vector<pollfd> &fds) const;
  void serve(std::span<const pollfd> polled);

 private:
  struct client;

  void accept_ready();
  void serve_client(client &of);
  void answer_line(client &of, const std::string &line, bool too_long);
  void send_some(client &to);
  void drop(client &of, const std::string &why);

  const runner run_;
  descriptor listener_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::vector<std::unique_ptr<client>> clients_;
  bool told_accept_ = false;
};

}  // namespace agent
