// SPDX-License-Identifier: Apache-2.0
// XdpProgram: the software TCAM's program in the kernel, loaded and attached, and its maps, mapped.
//
// Invariants: the maps are those of layout.h, of the sizes that were asked for.
// Ownership: owns descriptors and mappings. Without pins the kernel drops program and maps with them; with
//   pins both stay attached and in place, and a later XdpProgram takes them over: a new program replaces the
//   old one without a packet between them.
// Threading: one thread.
// Cost: memory for the maps, 680 bytes a position and 8 for each CPU.
// Errors: std::runtime_error with one sentence when the kernel, a capability or the interface is missing,
//   when pinned maps are of another shape, or attached elsewhere, and when somebody else's filter is at tc.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "hw/xdp/layout.h"
#include "pallo/types.h"

struct bpf_object;

namespace Hw {

enum class XdpHook {
  Driver,  // XDP in the driver
  Stack,   // XDP in the network stack, for each driver; slower
  Tc,      // tc ingress: the only one that can mark packets
};

// As the option of the agent names it.
char const* nameOf(XdpHook hook);

struct XdpOptions {
  std::string interface = {};  // empty: attached nowhere, for test runs
  XdpHook hook = XdpHook::Driver;
  U32 positions = 1024;
  bool permits = true;    // packets that no entry decides
  std::string pins = {};  // a directory in a BPF file system; empty: everything ends with this object
};

class XdpProgram {
 public:
  explicit XdpProgram(XdpOptions const& options);
  ~XdpProgram();
  XdpProgram(XdpProgram const&) = delete;
  XdpProgram& operator=(XdpProgram const&) = delete;

  // Takes program and pins away. Nothing filters from then on.
  void detach();
  // The same for what an earlier run left, whatever its shape.
  static void detach(XdpOptions const& options);

  U32 positions() const { return shape_->positions; }
  U32 slots() const { return shape_->slots; }
  U32 cpuCount() const { return cpuCount_; }
  XdpOptions const& options() const { return options_; }
  // Of all maps, bytes.
  U64 memory() const;
  // The maps were there, from an earlier run.
  bool isTakenOver() const { return isTakenOver_; }
  // For test runs.
  int fd() const { return fd_; }

  U64* bits(U32 word, U32 field) const { return &bits_[(word * std::size_t{byteFields} + field) * 256]; }
  U64* sums(U32 sum, U32 field) const { return &sums_[(sum * std::size_t{byteFields} + field) * 256]; }
  U64* refs() const { return refs_; }
  TcamRecord* records() const { return records_; }
  U64& hits(U32 cpu, U32 counter) const { return hits_[std::size_t{cpu} * slots() + counter]; }
  std::span<TcamCpu> cpus() const { return {cpus_, cpuCount_}; }

 private:
  struct Mapping {
    Mapping() = default;
    ~Mapping();
    Mapping(Mapping const&) = delete;
    Mapping& operator=(Mapping const&) = delete;
    void* at = nullptr;
    std::size_t bytes = 0;
  };
  struct Closer {
    void operator()(bpf_object* object) const;
  };

  void open();
  void size(char const* map, U64 entries);
  void load();
  void map();
  template <class T>
  T* mapped(char const* name);
  void takeShape();
  U32 interfaceIndex() const;
  void refuseOther(U32 interface) const;
  void attach();
  void attachXdp(U32 interface);
  void attachTc(U32 interface);
  std::string pin(char const* name) const { return options_.pins + '/' + name; }

  XdpOptions const options_;
  U32 const cpuCount_;
  std::unique_ptr<bpf_object, Closer> object_;
  int fd_ = -1;
  int link_ = -1;
  bool isTakenOver_ = false;
  Mapping mappings_[7];
  std::size_t mappingCount_ = 0;
  U64* bits_ = nullptr;
  U64* sums_ = nullptr;
  U64* refs_ = nullptr;
  TcamRecord* records_ = nullptr;
  U64* hits_ = nullptr;
  TcamCpu* cpus_ = nullptr;
  TcamShape* shape_ = nullptr;
};

}  // namespace Hw
