// SPDX-License-Identifier: Apache-2.0
// One connection to the management socket: its requests, its mounts, and a bounded buffer of what it has
// yet to read.
//
// Invariants: no request is taken and nothing is produced while more than `fullBuffer` bytes wait for the
//   peer; the answers come in the order of the requests.
// Ownership: the publisher's.
// Threading: the agent's event loop.
// Cost: one serve() reads at most one buffer, makes at most one slice and writes once.
// Errors: a request that cannot be served is answered with an error line. A line that is too long ends the
//   connection.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ostra/publish_export.h"
#include "ostra/publish_wire.h"

namespace Ostra {

using Exports = std::map<std::string, std::unique_ptr<Export>, std::less<>>;

class Peer {
 public:
  Peer(Pallo::Descriptor socket, bool mayWrite, Exports& exports);
  Peer(Peer const&) = delete;
  Peer& operator=(Peer const&) = delete;
  ~Peer();

  int fd() const { return socket_.get(); }
  // Does what the poll events allow. False when the connection is over.
  bool serve(U32 events);
  // The poll events that would get it further.
  U32 interest() const;

  // The object under the name goes: its mount ends and, when the peer had it mounted, it is told so.
  void withdrawn(std::string const& name);
  // Called at a steady pace: true when nothing was read since `calls` calls although something waits to be.
  bool stalledFor(int calls);
  void refuse(std::string const& why);

 private:
  // A collection that is being answered in pieces.
  struct Reading {
    std::string entity, attribute, opening;
    MemberCursor cursor;
  };
  using Json = Wire::Json;

  void receive();
  // A slice of what arrived; one request that acts on the agent ends it.
  void takeRequests();
  void produce();
  bool send();
  void fail(std::string const& why, Json const* tag = nullptr);

  void handle(std::string_view line);
  Json answer(Json const& request, std::string_view verb);
  Json list(Json const& request);
  Json listOne(Export const& exported);
  Json mount(Json const& request);
  Json unmount(Json const& request);
  Json read(Json const& request);
  Json write(Json const& request);
  Json erase(Json const& request);
  Json invoke(Json const& request);
  void beginReading(Json const& request, Export const& exported, std::string const& attribute);
  void continueReading();
  Export& exportOf(Json const& request, bool orType = false);
  void checkMayWrite() const;

  std::size_t backlog() const { return out_.size() - sent_; }

  Pallo::Descriptor socket_;
  bool const mayWrite_;
  Exports& exports_;
  Wire::LineBuffer in_;
  std::string out_;
  std::size_t sent_ = 0;
  std::map<std::string, Export::Cursor> mounts_;
  std::string turn_;  // the mount that was served last
  std::optional<Reading> reading_;
  bool waiting_ = false;   // complete requests wait for their turn
  bool acted_ = false;     // the request changed something
  bool heardAll_ = false;  // the peer will send no more
  bool ending_ = false;    // no more is taken; over when the buffer is empty
  bool broken_ = false;
  bool progressed_ = false;  // since stalledFor was called last
  int stalledCalls_ = 0;
  int unread_ = 0;  // bytes in the socket's buffer at the last call
};

}  // namespace Ostra
