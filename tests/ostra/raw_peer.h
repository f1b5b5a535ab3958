// SPDX-License-Identifier: Apache-2.0
// A client of the management socket that says exactly what the test wants and reads when the test wants.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ostra/publish.h"
#include "pallo/unix_socket.h"

namespace OstraTest {

using Json = nlohmann::ordered_json;

class RawPeer {
 public:
  explicit RawPeer(std::string const& path) : socket_(Pallo::connectTo(path), 1 << 30) {}
  bool connected() const { return static_cast<bool>(socket_); }
  int fd() const { return socket_.fd(); }
  bool closed() const { return closed_ || socket_.heardAll() || socket_.error() != 0; }
  void close() { socket_ = Pallo::LineSocket({}, 0); }

  // As much as the socket takes now.
  std::size_t write(std::string_view bytes) {
    ssize_t const n = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN) closed_ = true;
    return n < 0 ? 0 : static_cast<std::size_t>(n);
  }
  // What has arrived, at most so many bytes and 64 KB.
  void read(std::size_t atMost = 64 * 1024) {
    socket_.receive(atMost);
    while (auto const line = socket_.line()) lines_.push_back(std::string(*line));
  }
  std::vector<std::string> const& lines() const { return lines_; }
  std::vector<std::string> take() { return std::exchange(lines_, {}); }

 private:
  Pallo::LineSocket socket_;
  std::vector<std::string> lines_;
  bool closed_ = false;
};

// What a peer knows of one entity from the lines it read.
struct Picture {
  std::map<std::string, Json> scalars;
  std::map<std::string, std::map<U64, Json>> collections;
  std::map<std::string, std::map<U64, U64>> told;  // how often each member was told
  bool live = false;
  int snapshots = 0;

  void take(std::string const& line) {
    Json const json = Json::parse(line);
    if (!json.contains("event")) return;
    std::string const event = json["event"];
    if (event == "snapshot") {
      collections.clear();
      live = false;
      ++snapshots;
    } else if (event == "live") {
      live = true;
    } else if (event == "del") {
      for (Json const& key : json["keys"]) erase(json["attribute"], key.get<U64>());
    } else if (json.contains("members")) {
      for (Json const& member : json["members"]) set(json["attribute"], member[0].get<U64>(), member[1]);
    } else if (event == "set") {
      scalars[json["attribute"]] = json["value"];
    }
  }

 private:
  void set(std::string const& attribute, U64 key, Json const& value) {
    collections[attribute][key] = value;
    ++told[attribute][key];
  }
  void erase(std::string const& attribute, U64 key) {
    collections[attribute].erase(key);
    ++told[attribute][key];
  }
};

// Resident memory of this process, in bytes.
inline std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace OstraTest
