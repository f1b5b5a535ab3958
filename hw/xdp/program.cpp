// SPDX-License-Identifier: Apache-2.0
#include "hw/xdp/program.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fmt/format.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

extern "C" {
extern char const vantrelTableObject[];
extern char const vantrelTableObjectEnd[];
}

// The program, as the compiler for the kernel's machine made it.
asm(".pushsection .rodata\n"
    ".balign 16\n"
    ".global vantrelTableObject\n.hidden vantrelTableObject\n"
    ".global vantrelTableObjectEnd\n.hidden vantrelTableObjectEnd\n"
    "vantrelTableObject:\n.incbin \"" VANTREL_TABLE_OBJECT
    "\"\n"
    "vantrelTableObjectEnd:\n.byte 0\n"
    ".popsection\n");

namespace Hw {
namespace {

constexpr char const* maps[] = {"bits", "sums", "refs", "records", "hits", "cpus", "shape"};

// EACCES is what the kernel says of a program that only CAP_PERFMON lets pass.
[[noreturn]] void fail(std::string const& what, int error) {
  error = std::abs(error);
  bool const isForbidden = error == EPERM || error == EACCES;
  throw std::runtime_error(
      fmt::format("{}: {}{}", what, std::strerror(error),
                  isForbidden ? "; the capabilities CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN are needed" : ""));
}

// libbpf would print; what failed is thrown instead.
int silent(libbpf_print_level, char const*, va_list) { return 0; }

// Options of libbpf, which say their own size.
template <class T>
T optionsOf() {
  T options = {};
  options.sz = sizeof options;
  return options;
}

bpf_tc_hook ingressOf(U32 interface) {
  auto hook = optionsOf<bpf_tc_hook>();
  hook.ifindex = static_cast<int>(interface);
  hook.attach_point = BPF_TC_INGRESS;
  return hook;
}

bpf_tc_opts ourFilter() {
  auto filter = optionsOf<bpf_tc_opts>();
  filter.handle = filter.priority = 1;
  return filter;
}

constexpr char const* tcProgram = "atTc";

// The id of the program of the filter that is where ours would be, when that is a table's; 0 when none is.
// Throws when somebody else's is there.
U32 tableAtTc(std::string const& interface) {
  bpf_tc_hook const hook = ingressOf(::if_nametoindex(interface.c_str()));
  bpf_tc_opts filter = ourFilter();
  if (bpf_tc_query(&hook, &filter) != 0) return 0;
  bpf_prog_info info = {};
  U32 bytes = sizeof info;
  int const fd = bpf_prog_get_fd_by_id(filter.prog_id);
  bool const isKnown = fd >= 0 && bpf_obj_get_info_by_fd(fd, &info, &bytes) == 0;
  if (fd >= 0) ::close(fd);
  if (isKnown && std::strcmp(info.name, tcProgram) == 0) return filter.prog_id;
  throw std::runtime_error(interface + ": somebody else's filter has priority 1 at tc ingress");
}

// 0, or the error.
int detachTc(std::string const& interface) {
  if (tableAtTc(interface) == 0) return 0;
  bpf_tc_hook const hook = ingressOf(::if_nametoindex(interface.c_str()));
  bpf_tc_opts const filter = ourFilter();
  return bpf_tc_detach(&hook, &filter);
}

void removePin(std::string const& pin) {
  if (::unlink(pin.c_str()) != 0 && errno != ENOENT) fail(pin, errno);
}

U32 numberOf(XdpHook hook) { return static_cast<U32>(hook) + 1; }

// Whether the table that is pinned there is attached at tc.
bool isPinnedAtTc(std::string const& pins) {
  if (pins.empty()) return false;
  int const fd = bpf_obj_get((pins + "/shape").c_str());
  if (fd < 0) return false;
  U32 const first = 0;
  TcamShape shape = {};
  bool const isRead = bpf_map_lookup_elem(fd, &first, &shape) == 0;
  ::close(fd);
  return isRead && shape.hook == numberOf(XdpHook::Tc);
}

U64 wordsFor(U64 things) { return (things + 63) / 64; }

}  // namespace

char const* nameOf(XdpHook hook) {
  switch (hook) {
    case XdpHook::Driver:
      return "native";
    case XdpHook::Stack:
      return "generic";
    case XdpHook::Tc:
      return "tc";
  }
  return "";
}

XdpProgram::Mapping::~Mapping() {
  if (at) ::munmap(at, bytes);
}

void XdpProgram::Closer::operator()(bpf_object* object) const { bpf_object__close(object); }

XdpProgram::XdpProgram(XdpOptions const& options)
    : options_(options), cpuCount_(static_cast<U32>(std::max(1, libbpf_num_possible_cpus()))) {
  if (options_.positions == 0 || options_.positions > mostPositions)
    throw std::runtime_error(fmt::format("{} positions: from 1 to {} are possible", options_.positions,
                                         static_cast<U32>(mostPositions)));
  open();
  load();
  map();
  takeShape();
  if (!options_.interface.empty()) attach();
}

U64 XdpProgram::memory() const {
  U64 sum = 0;
  for (Mapping const& mapping : mappings_) sum += mapping.bytes;
  return sum;
}

U32 XdpProgram::interfaceIndex() const {
  U32 const index = ::if_nametoindex(options_.interface.c_str());
  if (index == 0) fail(fmt::format("the interface {}", options_.interface), errno);
  return index;
}

XdpProgram::~XdpProgram() {
  if (options_.pins.empty() && options_.hook == XdpHook::Tc && !options_.interface.empty()) try {
      detachTc(options_.interface);
    } catch (std::exception const&) {  // it is somebody else's by now
    }
  if (link_ >= 0) ::close(link_);
}

void XdpProgram::open() {
  if (!std::getenv("VANTREL_XDP_LOG")) libbpf_set_print(silent);
  bpf_object* const object = bpf_object__open_mem(
      vantrelTableObject, static_cast<std::size_t>(vantrelTableObjectEnd - vantrelTableObject), nullptr);
  if (!object) fail("the table's program cannot be opened", errno);
  object_.reset(object);
  U64 const words = wordsFor(options_.positions);
  size("bits", words * byteFields);
  size("sums", wordsFor(words) * byteFields);
  size("refs", options_.positions);
  // One more than positions: an entry's next version is made before the last one goes.
  size("records", options_.positions + 1);
  size("hits", U64{cpuCount_} * (options_.positions + 1));
  size("cpus", cpuCount_);
  size("shape", 1);
}

void XdpProgram::size(char const* name, U64 entries) {
  bpf_map* const map = bpf_object__find_map_by_name(object_.get(), name);
  bpf_map__set_max_entries(map, static_cast<U32>(entries));
  if (options_.pins.empty()) return;
  if (int const error = bpf_map__set_pin_path(map, pin(name).c_str())) fail(pin(name), error);
}

void XdpProgram::load() {
  bool const isPinned = !options_.pins.empty() && ::access(pin("shape").c_str(), F_OK) == 0;
  if (int const error = bpf_object__load(object_.get()); error == -EINVAL && isPinned)
    throw std::runtime_error(options_.pins + ": holds a table of another shape; detach it first");
  else if (error == -EINVAL)
    throw std::runtime_error("the kernel does not take the table's program: it must be 5.17 or later");
  else if (error)
    fail("the table's program cannot be loaded", error);
  char const* const name = options_.hook == XdpHook::Tc ? tcProgram : "atXdp";
  fd_ = bpf_program__fd(bpf_object__find_program_by_name(object_.get(), name));
}

template <class T>
T* XdpProgram::mapped(char const* name) {
  bpf_map const* const map = bpf_object__find_map_by_name(object_.get(), name);
  std::size_t const bytes = std::size_t{bpf_map__value_size(map)} * bpf_map__max_entries(map);
  void* const at = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, bpf_map__fd(map), 0);
  if (at == MAP_FAILED) fail(fmt::format("the map {} cannot be mapped", name), errno);
  Mapping& mapping = mappings_[mappingCount_++];
  mapping.at = at;
  mapping.bytes = bytes;
  return static_cast<T*>(at);
}

void XdpProgram::map() {
  bits_ = mapped<U64>("bits");
  sums_ = mapped<U64>("sums");
  refs_ = mapped<U64>("refs");
  records_ = mapped<TcamRecord>("records");
  hits_ = mapped<U64>("hits");
  cpus_ = mapped<TcamCpu>("cpus");
  shape_ = mapped<TcamShape>("shape");
}

void XdpProgram::takeShape() {
  isTakenOver_ = shape_->version != 0;
  if (isTakenOver_ && shape_->version != layoutVersion)
    throw std::runtime_error(fmt::format("{}: its table has layout {}, this program writes {}; detach it",
                                         options_.pins, shape_->version, static_cast<U32>(layoutVersion)));
  U32 const hook = shape_->hook, interface = shape_->interface;
  *shape_ = {.version = layoutVersion,
             .positions = options_.positions,
             .sums = static_cast<U32>(wordsFor(wordsFor(options_.positions))),
             .slots = options_.positions + 1,
             .permits = options_.permits,
             .hook = hook,
             .interface = interface};
}

// What is known of the attachment is written first: killed in between, the agent has claimed too much.
void XdpProgram::attach() {
  U32 const interface = interfaceIndex();
  if (shape_->hook != 0) refuseOther(interface);
  shape_->hook = numberOf(options_.hook);
  shape_->interface = interface;
  try {
    options_.hook == XdpHook::Tc ? attachTc(interface) : attachXdp(interface);
  } catch (...) {
    if (!isTakenOver_) shape_->hook = 0;
    throw;
  }
}

// Throws when the table is attached elsewhere.
void XdpProgram::refuseOther(U32 interface) const {
  if (shape_->interface != interface)
    throw std::runtime_error(options_.pins + ": its table is attached to another interface; detach it first");
  for (XdpHook const hook : {XdpHook::Driver, XdpHook::Stack, XdpHook::Tc})
    if (shape_->hook == numberOf(hook) && hook != options_.hook)
      throw std::runtime_error(fmt::format("{}: its table is attached as {}, not as {}; detach it first",
                                           options_.pins, nameOf(hook), nameOf(options_.hook)));
}

void XdpProgram::attachXdp(U32 interface) {
  if (!options_.pins.empty()) link_ = bpf_obj_get(pin("link").c_str());
  if (link_ >= 0) {
    if (bpf_link_update(link_, fd_, nullptr) != 0) fail("the program cannot be replaced", errno);
    return;
  }
  auto how = optionsOf<bpf_link_create_opts>();
  how.flags = options_.hook == XdpHook::Driver ? XDP_FLAGS_DRV_MODE : XDP_FLAGS_SKB_MODE;
  link_ = bpf_link_create(fd_, static_cast<int>(interface), BPF_XDP, &how);
  if (link_ < 0) fail(fmt::format("nothing can be attached to {}", options_.interface), errno);
  if (!options_.pins.empty() && bpf_obj_pin(link_, pin("link").c_str()) != 0) fail(pin("link"), errno);
}

void XdpProgram::attachTc(U32 interface) {
  bpf_tc_hook hook = ingressOf(interface);
  if (int const error = bpf_tc_hook_create(&hook); error && error != -EEXIST)
    fail(fmt::format("nothing can be attached to {}", options_.interface), error);
  bpf_tc_opts filter = ourFilter();
  filter.prog_fd = fd_;
  filter.flags = tableAtTc(options_.interface) != 0 ? BPF_TC_F_REPLACE : 0;
  if (int const error = bpf_tc_attach(&hook, &filter))
    fail(fmt::format("nothing can be attached to {}", options_.interface), error);
}

void XdpProgram::detach() {
  if (link_ >= 0) {
    bpf_link_detach(link_);
    ::close(std::exchange(link_, -1));
  }
  detach(options_);
}

void XdpProgram::detach(XdpOptions const& options) {
  bool const isAtTc = options.hook == XdpHook::Tc || isPinnedAtTc(options.pins);
  if (isAtTc && !options.interface.empty())
    if (int const error = detachTc(options.interface)) fail("the filter at " + options.interface, error);
  if (options.pins.empty()) return;
  std::string const link = options.pins + "/link";
  if (int const fd = bpf_obj_get(link.c_str()); fd >= 0) {
    bpf_link_detach(fd);  // now, not when the last reference is gone
    ::close(fd);
  } else if (errno != ENOENT) {
    fail(link, errno);
  }
  removePin(link);
  for (char const* name : maps) removePin(options.pins + '/' + name);
}

}  // namespace Hw
