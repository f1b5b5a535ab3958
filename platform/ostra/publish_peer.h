// SPDX-License-Identifier: Apache-2.0
// One connection to the management socket: its requests, its mounts, and what it has yet to read.
//
// Invariants: while anything waits for the peer to read, no request is taken and nothing is produced; so it
//   costs one request line, one slice or answer and, walking a hash map, one piece's keys of memory. Answers
//   come in the order of the requests.
// Ownership: the publisher's.
// Threading: the agent's event loop.
// Cost: one serve() reads 16 KB, takes at most 32 requests of which one acts on the agent, makes a slice of
//   32 KB and writes once. It begins nothing new when the turn is over.
// Errors: a request that cannot be served is answered with an error line. A line that is too long ends the
//   connection.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ostra/publish_export.h"
#include "ostra/publish_wire.h"
#include "pallo/unix_socket.h"

namespace Ostra {

using Exports = std::map<std::string, std::unique_ptr<Export>, std::less<>>;

class Peer {
 public:
  // `mayAct`: it may write, delete and invoke.
  Peer(Pallo::Descriptor socket, bool mayAct, Exports const& exports);
  Peer(Peer const&) = delete;
  Peer& operator=(Peer const&) = delete;
  ~Peer();

  int fd() const { return socket_.fd(); }
  // Goes on after these poll events, or none. False when the connection is over.
  bool serve(U32 events, Turn const& turn);
  // The poll events that would get it further.
  U32 interest() const;
  // It gets further without an event.
  bool wantsTurn() const;

  // The export goes: its mount ends and, when the peer had it mounted, it is told so.
  void withdrawn(Export& exported);
  // Tells the peer why it is dropped, if its socket takes so much.
  void dismiss(std::string const& why);

  // Nothing is mounted or asked for.
  bool idle() const { return mounts_.empty() && !reading_ && !waiting_ && !socket_.sending(); }
  // The time of the last request.
  double askedAt() const { return askedAt_; }
  // Called now and then: nothing was read for so long although something waits.
  bool stalledFor(double seconds);

 private:
  using Message = Wire::Message;
  struct Verb {
    std::string_view name;
    std::string (Peer::*answer)(Message const& request);
    bool acts;
  };
  // A collection that is being answered in pieces.
  struct Reading {
    Export* exported;
    std::string opening;  // of each line
    Export::Cursor cursor;
  };

  void takeRequests(Turn const& turn);
  bool takeLine();
  void produce(Turn const& turn);
  void fail(std::string const& why, Wire::Field const& tag = {});

  static Verb const* verbOf(Message const& request);
  void answer(Message const& request);
  std::string list(Message const& request);
  std::string mount(Message const& request);
  std::string unmount(Message const& request);
  std::string read(Message const& request);
  std::string write(Message const& request);
  std::string erase(Message const& request);
  std::string invoke(Message const& request);
  void readOn();
  void endReading();
  Export& exportOf(Message const& request) const;
  Export& exportOfType(std::string const& type) const;

  Pallo::LineSocket socket_;
  bool const mayAct_;
  Exports const& exports_;
  std::optional<Message> request_;  // the next one
  std::map<Export*, Export::Cursor> mounts_;
  Export* lastMount_ = nullptr;  // that was served
  std::optional<Reading> reading_;
  bool waiting_ = false;  // complete requests wait for their turn
  bool ending_ = false;   // no more is taken; over when all was sent
  double askedAt_;
  double readAt_;                 // when the peer was last seen to read, or to have nothing to read
  std::pair<U64, int> progress_;  // bytes sent and unread then
};

}  // namespace Ostra
