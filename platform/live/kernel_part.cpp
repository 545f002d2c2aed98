#include "platform/live/kernel_part.h"

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <linux/bpf.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vswitch.skel.h"

namespace live {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view PROGRAM_PIN = "program-";
constexpr const char *PROGRAM = "vswitch";
constexpr const char *COMMANDS = "change_addresses";
constexpr const char *ANNOUNCEMENTS = "announce";

// libbpf tells of failures in prose; the first line says what went wrong.
thread_local std::string lastWarning;

int KeepWarning(libbpf_print_level level, const char *format, va_list arguments)
{
    if (level != LIBBPF_WARN || !lastWarning.empty()) return 0;
    char text[512];
    vsnprintf(text, sizeof(text), format, arguments);
    lastWarning.assign(text, strcspn(text, "\n"));
    return 0;
}

std::span<const uint8_t> BuiltIn()
{
    size_t size = 0;
    const void *bytes = vswitch_bpf__elf_bytes(&size);
    return {static_cast<const uint8_t *>(bytes), size};
}

std::string DirectoryPrefix(const LoadOptions &options) { return options.identity + "-v"; }

std::set<std::string> FilesOf(const std::string &directory)
{
    std::set<std::string> files;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory, error))
        files.insert(entry.path().filename());
    return files;
}

// The program id that a pin's name holds; 0: it is not a program's.
uint32_t ProgramOfPin(std::string_view name)
{
    uint32_t id = 0;
    if (!name.starts_with(PROGRAM_PIN)) return 0;
    name.remove_prefix(PROGRAM_PIN.size());
    std::from_chars(name.data(), name.data() + name.size(), id);
    return id;
}

uint32_t ProgramId(int fd)
{
    bpf_prog_info info = {};
    uint32_t size = sizeof(info);
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

void RemoveDirectory(const std::string &directory)
{
    for (const std::string &file : FilesOf(directory))
        unlink((directory + "/" + file).c_str());
    rmdir(directory.c_str());
}

// The number of entries of a map that is made; 0: the object says it.
uint32_t WantedEntries(std::string_view map, const Capacity &capacity)
{
    if (map == "ports" || map == "counters" || map == "interfaces") return capacity.ports;
    if (map == "switches" || map == "snapshots") return capacity.switches;
    if (map == "groups" || map == "group_sources") return capacity.groups;
    return map == "addresses" ? capacity.addresses : 0;
}

}

std::string PinsOf(const std::string &bpffs, const std::string &identity)
{
    return bpffs + "/" + identity + "-v" + std::to_string(LIVE_LAYOUT_VERSION);
}

std::set<uint32_t> ProgramsOf(const std::string &pins)
{
    std::set<uint32_t> programs;
    for (const std::string &file : FilesOf(pins))
        if (const uint32_t id = ProgramOfPin(file)) programs.insert(id);
    return programs;
}

template<typename Value> SharedArray<Value>::~SharedArray()
{
    if (values) munmap(values, size * sizeof(Value));
}

template<typename Value> bool SharedArray<Value>::Map(int fd, uint32_t count)
{
    void *memory = mmap(nullptr, count * sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) return false;
    values = static_cast<Value *>(memory);
    size = count;
    return true;
}

template class SharedArray<LivePort>;
template class SharedArray<LiveSwitch>;
template class SharedArray<LiveHost>;
template class SharedArray<LiveMirrorSlot>;

KernelPart::KernelPart() = default;
KernelPart::~KernelPart() = default;

void KernelPart::Close::operator()(bpf_object *object) const { bpf_object__close(object); }

VsStatus KernelPart::Fail(VsStatus status, const std::string &what, int error)
{
    message = what + ": " + strerror(error);
    if (!lastWarning.empty()) message += " (" + lastWarning + ")";
    return status;
}

VsStatus KernelPart::TakeOverMaps(const Capacity &capacity)
{
    bpf_map *map;
    bpf_object__for_each_map(map, object.get())
    {
        if (bpf_map__is_internal(map)) continue;
        const char *name = bpf_map__name(map);
        const Descriptor pinned(bpf_obj_get((directory + "/" + name).c_str()));
        const uint32_t entries = WantedEntries(name, capacity);
        int error = 0;
        if (pinned)
            error = bpf_map__reuse_fd(map, pinned.Get());
        else if (entries != 0)
            error = bpf_map__set_max_entries(map, entries);
        if (error != 0)
            return Fail(vshost::STATUS_FAILURE, std::string("cannot prepare map ") + name, -error);
    }
    return vshost::STATUS_OK;
}

VsStatus KernelPart::Pin()
{
    bpf_map *map;
    bpf_object__for_each_map(map, object.get())
    {
        if (bpf_map__is_internal(map)) continue;
        const std::string path = directory + "/" + bpf_map__name(map);
        if (bpf_obj_pin(bpf_map__fd(map), path.c_str()) != 0 && errno != EEXIST)
            return Fail(vshost::StatusOfErrno(errno), "cannot pin " + path, errno);
    }
    const uint32_t id = ProgramId(Program());
    const std::string path = directory + "/" + std::string(PROGRAM_PIN) + std::to_string(id);
    if (bpf_obj_pin(Program(), path.c_str()) != 0)
        return Fail(vshost::StatusOfErrno(errno), "cannot pin " + path, errno);
    ourPrograms.insert(id);
    return vshost::STATUS_OK;
}

void KernelPart::FindPredecessors(const LoadOptions &options)
{
    for (const std::string &name : FilesOf(options.bpffs)) {
        const std::string path = options.bpffs + "/" + name;
        if (!name.starts_with(DirectoryPrefix(options))) continue;
        for (const std::string &file : FilesOf(path)) {
            const uint32_t id = ProgramOfPin(file);
            if (id == 0) continue;
            ourPrograms.insert(id);
            if (path == directory) predecessors.insert(path + "/" + file);
        }
        if (path == directory) continue;
        predecessors.insert(path);
        startedAfresh = true;
    }
}

VsStatus KernelPart::Load(const LoadOptions &options)
{
    lastWarning.clear();
    libbpf_set_print(KeepWarning);
    directory = PinsOf(options.bpffs, options.identity);
    FindPredecessors(options);
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        return Fail(vshost::StatusOfErrno(errno), "cannot make " + directory, errno);

    const std::span<const uint8_t> bytes = options.object.empty() ? BuiltIn() : options.object;
    object.reset(bpf_object__open_mem(bytes.data(), bytes.size(), nullptr));
    if (!object) return Fail(vshost::STATUS_FAILURE, "cannot read the data path", errno);
    if (VsStatus status = TakeOverMaps(options.capacity)) return status;
    const int error = bpf_object__load(object.get());
    if (error != 0) return Fail(vshost::StatusOfErrno(-error), "the kernel refuses the data path", -error);
    if (VsStatus status = Pin()) return status;

    if (!ports.Map(MapDescriptor("ports"), EntriesOf("ports")) ||
        !switches.Map(MapDescriptor("switches"), EntriesOf("switches")) ||
        !host.Map(MapDescriptor("host"), 1) || !mirrors.Map(MapDescriptor("mirrors"), EntriesOf("mirrors")))
        return Fail(vshost::STATUS_NO_MEMORY, "cannot map the data path's arrays", errno);
    return vshost::STATUS_OK;
}

void KernelPart::RemovePins()
{
    ForgetPredecessors();
    RemoveDirectory(directory);
}

void KernelPart::ForgetPredecessors()
{
    for (const std::string &path : predecessors) {
        RemoveDirectory(path);
        unlink(path.c_str());
    }
    predecessors.clear();
    ourPrograms = {ProgramId(Program())};
    startedAfresh = false;
}

int KernelPart::Program() const
{
    return bpf_program__fd(bpf_object__find_program_by_name(object.get(), PROGRAM));
}

int KernelPart::CommandProgram() const
{
    return bpf_program__fd(bpf_object__find_program_by_name(object.get(), COMMANDS));
}

uint32_t KernelPart::EntriesOf(const char *map) const
{
    return bpf_map__max_entries(bpf_object__find_map_by_name(object.get(), map));
}

int KernelPart::Run(const LiveCommand &command, std::span<const std::byte> keys) const
{
    std::vector<uint8_t> packet(LIVE_COMMAND_KEYS_OFFSET + keys.size());
    std::memcpy(&packet[LIVE_COMMAND_OFFSET], &command, sizeof(command));
    if (!keys.empty()) std::memcpy(&packet[LIVE_COMMAND_KEYS_OFFSET], keys.data(), keys.size());
    bpf_test_run_opts run = {};
    run.sz = sizeof(run);
    run.data_in = packet.data();
    run.data_size_in = static_cast<uint32_t>(packet.size());
    run.repeat = 1;
    if (bpf_prog_test_run_opts(CommandProgram(), &run) != 0) return -errno;
    return static_cast<int>(run.retval);
}

int KernelPart::Announce(const Announcement &announcement) const
{
    // RARP: whose protocol address is this hardware address's? Nobody answers; switches learn from it.
    struct [[gnu::packed]] {
        uint8_t destination[6], source[6];
        uint16_t etherType, hardware, protocol;
        uint8_t hardwareLength, protocolLength;
        uint16_t operation;
        uint8_t senderHardware[6], senderProtocol[4], targetHardware[6], targetProtocol[4];
        uint8_t padding[18];
    } frame = {};
    static_assert(sizeof(frame) == ETH_ZLEN);
    const uint8_t *mac = announcement.address.mac;
    std::memset(frame.destination, 0xff, sizeof(frame.destination));
    for (uint8_t *field : {frame.source, frame.senderHardware, frame.targetHardware})
        std::memcpy(field, mac, sizeof(frame.source));
    frame.etherType = htons(ETH_P_RARP);
    frame.hardware = htons(ARPHRD_ETHER);
    frame.protocol = htons(ETH_P_IP);
    frame.hardwareLength = sizeof(frame.senderHardware);
    frame.protocolLength = sizeof(frame.senderProtocol);
    frame.operation = htons(ARPOP_RREQUEST);

    __sk_buff context = {};
    context.cb[LIVE_ANNOUNCED_SLOT] = announcement.slot;
    context.cb[LIVE_ANNOUNCED_VLAN] = announcement.address.vlan;
    context.cb[LIVE_ANNOUNCED_UPLINK] = announcement.uplinkSlot;
    context.cb[LIVE_ANNOUNCED_PLACE] = announcement.place;
    context.cb[LIVE_ANNOUNCED_PASSED] = announcement.passed;
    bpf_test_run_opts run = {};
    run.sz = sizeof(run);
    run.data_in = &frame;
    run.data_size_in = sizeof(frame);
    run.ctx_in = &context;
    run.ctx_size_in = sizeof(context);
    run.repeat = 1;
    const int program = bpf_program__fd(bpf_object__find_program_by_name(object.get(), ANNOUNCEMENTS));
    return bpf_prog_test_run_opts(program, &run) == 0 ? static_cast<int>(run.retval) : -errno;
}

int KernelPart::MapDescriptor(const char *name) const
{
    return bpf_object__find_map_fd_by_name(object.get(), name);
}

}
