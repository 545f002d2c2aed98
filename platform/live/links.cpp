#include "platform/live/links.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <linux/ethtool.h>
#include <linux/pkt_sched.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/qdisc.h>
#include <netlink/route/rtnl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace live {
namespace {

constexpr uint32_t FEATURE_BLOCKS = 4; // of 32 features
constexpr int EVENT_BUFFER = 4 << 20;  // bytes; events that don't fit cost a look at all interfaces

struct ReleaseLink {
    void operator()(rtnl_link *link) const { rtnl_link_put(link); }
};
using OwnedLink = std::unique_ptr<rtnl_link, ReleaseLink>;

struct ReleaseCallbacks {
    void operator()(nl_cb *callbacks) const { nl_cb_put(callbacks); }
};

Link Describe(rtnl_link *link, const nlmsghdr &message)
{
    const unsigned flags = rtnl_link_get_flags(link);
    const char *name = rtnl_link_get_name(link);
    Link found;
    found.name = name ? name : "";
    found.ifindex = static_cast<uint32_t>(rtnl_link_get_ifindex(link));
    found.adminUp = flags & IFF_UP;
    found.carrier = rtnl_link_get_carrier(link) != 0;
    found.promiscuous = flags & IFF_PROMISC;
    found.mtu = rtnl_link_get_mtu(link);
    found.bonding = ReadBonding(message);
    return found;
}

// Asks the interface's driver; false when it doesn't know.
template<typename Question> bool Ask(int control, const std::string &name, Question &question)
{
    ifreq request = {};
    name.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    request.ifr_data = reinterpret_cast<char *>(&question);
    return ioctl(control, SIOCETHTOOL, &request) == 0;
}

int32_t ReadNumaNode(const std::string &name)
{
    int32_t node = -1;
    std::ifstream("/sys/class/net/" + name + "/device/numa_node") >> node;
    return node;
}

// ethtool_sset_info, ethtool_gfeatures and ethtool_sfeatures with their arrays.
struct CountQuestion {
    uint32_t command;
    uint32_t reserved;
    uint64_t mask;
    uint32_t count;
};
struct FeatureQuestion {
    uint32_t command;
    uint32_t size;
    ethtool_get_features_block blocks[FEATURE_BLOCKS];
};
struct FeatureChange {
    uint32_t command;
    uint32_t size;
    ethtool_set_features_block blocks[FEATURE_BLOCKS];
};

std::string Ipv6Switch(const std::string &interface)
{
    return "/proc/sys/net/ipv6/conf/" + interface + "/disable_ipv6";
}

int ErrnoOfNetlink(int error)
{
    switch (-error) {
    case 0:
        return 0;
    case NLE_PERM:
    case NLE_NOACCESS:
        return EPERM;
    case NLE_NODEV:
    case NLE_OBJ_NOTFOUND:
        return ENODEV;
    case NLE_BUSY:
        return EBUSY;
    case NLE_NOMEM:
        return ENOMEM;
    case NLE_OPNOTSUPP:
        return EOPNOTSUPP;
    default:
        return EINVAL;
    }
}

}

// What is to be changed of an interface.
struct Links::Change {
    unsigned flags = 0;    // IFF_… that are changed
    unsigned flagsSet = 0; // of them, those that are set
    uint32_t mtu = 0;      // 0: stays
};

// A message from the kernel that is being read.
struct Links::Message {
    Links &links;
    const nlmsghdr &header;
};

void Links::Release::operator()(nl_sock *socket) const { nl_socket_free(socket); }

Links::Links() = default;

Links::~Links()
{
    if (control >= 0) close(control);
}

bool Links::Open(std::string &message)
{
    events.reset(nl_socket_alloc());
    requests.reset(nl_socket_alloc());
    control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    nl_socket_disable_seq_check(events.get());
    nl_socket_modify_cb(events.get(), NL_CB_VALID, NL_CB_CUSTOM, TakeMessage, this);
    int error = nl_connect(requests.get(), NETLINK_ROUTE);
    if (!error) error = nl_connect(events.get(), NETLINK_ROUTE);
    if (!error) error = nl_socket_set_buffer_size(events.get(), EVENT_BUFFER, 0);
    if (!error) error = nl_socket_set_nonblocking(events.get());
    if (!error) error = nl_socket_add_memberships(events.get(), RTNLGRP_LINK, 0);
    if (!error && ReadAll()) return true;
    message = std::string("can't follow the network interfaces: ") + nl_geterror(error);
    return false;
}

int Links::EventDescriptor() const { return nl_socket_get_fd(events.get()); }

void Links::AddDetails(Link &link) const
{
    ethtool_cmd settings = {};
    settings.cmd = ETHTOOL_GSET;
    if (Ask(control, link.name, settings)) {
        const uint32_t speed = ethtool_cmd_speed(&settings);
        link.speed = speed == static_cast<uint32_t>(SPEED_UNKNOWN) ? 0 : speed;
        link.fullDuplex = settings.duplex != DUPLEX_HALF;
    }
    link.numaNode = ReadNumaNode(link.name);
}

bool Links::Follow(Link link)
{
    AddDetails(link);
    Link &known = links[link.ifindex];
    if (known == link) return false;
    if (known.IsUp() && !link.IsUp()) lost.insert(link.ifindex);
    if (known.name != link.name) ForgetName(known);
    ifindexes[link.name] = link.ifindex;
    known = std::move(link);
    return hasChanged = true;
}

int Links::TakeMessage(nl_msg *message, void *self)
{
    Message taken = {*static_cast<Links *>(self), *nlmsg_hdr(message)};
    nl_msg_parse(message, TakeObject, &taken);
    return NL_OK;
}

void Links::TakeObject(nl_object *object, void *message)
{
    const auto &[links, header] = *static_cast<Message *>(message);
    auto *link = reinterpret_cast<rtnl_link *>(object);
    // A bridge tells of its ports by the same messages: one that leaves it is not gone.
    if (rtnl_link_get_family(link) != AF_UNSPEC) return;
    if (nl_object_get_msgtype(object) == RTM_NEWLINK)
        links.Follow(Describe(link, header));
    else
        links.Forget(static_cast<uint32_t>(rtnl_link_get_ifindex(link)));
}

void Links::ForgetName(const Link &link)
{
    const auto known = ifindexes.find(link.name);
    if (known != ifindexes.end() && known->second == link.ifindex) ifindexes.erase(known);
}

void Links::Forget(uint32_t ifindex)
{
    const auto known = links.find(ifindex);
    if (known == links.end()) return;
    ForgetName(known->second);
    links.erase(known);
    deleted.insert(ifindex);
    hasChanged = true;
}

bool Links::ReadAll()
{
    const std::unique_ptr<nl_cb, ReleaseCallbacks> callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    if (!callbacks) return false;
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, TakeMessage, this);
    const std::map<uint32_t, Link> before = std::exchange(links, {});
    const bool hadChanged = hasChanged;
    ifindexes.clear();
    int error;
    do { // until no interface has changed meanwhile
        error = nl_rtgen_request(requests.get(), RTM_GETLINK, AF_UNSPEC, NLM_F_DUMP);
        if (error >= 0) error = nl_recvmsgs(requests.get(), callbacks.get());
    } while (error == -NLE_DUMP_INTR);
    for (const auto &[ifindex, link] : before)
        deleted.insert(ifindex); // each may be another one
    hasChanged = hadChanged || before != links;
    return error >= 0;
}

bool Links::Update()
{
    int error = 0;
    while (error == 0)
        error = nl_recvmsgs_default(events.get());
    if (error != -NLE_AGAIN) ReadAll(); // events were lost
    return std::exchange(hasChanged, false);
}

bool Links::PollCarrier(uint32_t ifindex)
{
    const auto found = links.find(ifindex);
    ethtool_value answer = {.cmd = ETHTOOL_GLINK, .data = 0};
    if (found == links.end() || !found->second.adminUp || !Ask(control, found->second.name, answer))
        return false;
    const bool carrier = answer.data != 0;
    return std::exchange(found->second.carrier, carrier) != carrier;
}

const Link *Links::Find(const std::string &name) const
{
    const auto known = ifindexes.find(name);
    return known == ifindexes.end() ? nullptr : &links.at(known->second);
}

bool Links::HasClsact(uint32_t ifindex) const
{
    nl_cache *cache = nullptr;
    if (rtnl_qdisc_alloc_cache(requests.get(), &cache) != 0) return false;
    rtnl_qdisc *found = rtnl_qdisc_get_by_parent(cache, static_cast<int>(ifindex), TC_H_CLSACT);
    if (found) rtnl_qdisc_put(found);
    nl_cache_free(cache);
    return found != nullptr;
}

std::string Links::NameOf(uint32_t ifindex) const
{
    const auto known = links.find(ifindex);
    return known == links.end() ? std::string() : known->second.name;
}

// UINT32_MAX: the kernel has no such feature.
uint32_t Links::FeatureBit(const std::string &interface, const char *name) const
{
    if (featureBits.empty()) {
        CountQuestion question = {
            .command = ETHTOOL_GSSET_INFO, .reserved = 0, .mask = uint64_t{1} << ETH_SS_FEATURES, .count = 0};
        if (!Ask(control, interface, question) || question.count == 0) return UINT32_MAX;
        std::vector<char> room(sizeof(ethtool_gstrings) + question.count * size_t{ETH_GSTRING_LEN});
        auto &strings = *reinterpret_cast<ethtool_gstrings *>(room.data());
        strings.cmd = ETHTOOL_GSTRINGS;
        strings.string_set = ETH_SS_FEATURES;
        strings.len = question.count;
        if (!Ask(control, interface, strings)) return UINT32_MAX;
        featureCount = question.count;
        for (uint32_t bit = 0; bit < question.count; bit++) {
            const char *text = &room[sizeof(ethtool_gstrings) + bit * size_t{ETH_GSTRING_LEN}];
            featureBits[std::string(text, strnlen(text, ETH_GSTRING_LEN))] = bit;
        }
    }
    const auto found = featureBits.find(name);
    return found == featureBits.end() ? UINT32_MAX : found->second;
}

bool Links::IsFeatureOn(uint32_t ifindex, const char *name) const
{
    const std::string interface = NameOf(ifindex);
    const uint32_t bit = FeatureBit(interface, name);
    if (bit == UINT32_MAX) return false;
    FeatureQuestion question = {.command = ETHTOOL_GFEATURES, .size = FEATURE_BLOCKS, .blocks = {}};
    const ethtool_get_features_block &block = question.blocks[bit / 32 % FEATURE_BLOCKS];
    return Ask(control, interface, question) && (block.active & block.available) >> bit % 32 & 1;
}

int Links::SetFeature(uint32_t ifindex, const char *name, bool on) const
{
    const std::string interface = NameOf(ifindex);
    const uint32_t bit = FeatureBit(interface, name);
    if (bit == UINT32_MAX) return EOPNOTSUPP;
    FeatureChange change = {.command = ETHTOOL_SFEATURES, .size = (featureCount + 31) / 32, .blocks = {}};
    change.blocks[bit / 32 % FEATURE_BLOCKS] = {.valid = 1u << bit % 32,
                                                .requested = (on ? 1u : 0u) << bit % 32};
    Ask(control, interface, change); // it may answer with what it could not do
    return IsFeatureOn(ifindex, name) == on ? 0 : EOPNOTSUPP;
}

bool Links::IsIpv6On(uint32_t ifindex) const
{
    int isOff = 1; // a kernel without IPv6
    std::ifstream(Ipv6Switch(NameOf(ifindex))) >> isOff;
    return isOff == 0;
}

int Links::SetIpv6(uint32_t ifindex, bool on) const
{
    std::ofstream file(Ipv6Switch(NameOf(ifindex)));
    file << (on ? 0 : 1) << std::flush;
    return file.good() ? 0 : EACCES;
}

int Links::Apply(uint32_t ifindex, const Change &change)
{
    const OwnedLink present(rtnl_link_alloc()), wanted(rtnl_link_alloc());
    if (!present || !wanted) return ENOMEM;
    rtnl_link_set_ifindex(present.get(), static_cast<int>(ifindex));
    rtnl_link_set_flags(wanted.get(), change.flags & change.flagsSet);
    rtnl_link_unset_flags(wanted.get(), change.flags & ~change.flagsSet);
    if (change.mtu) rtnl_link_set_mtu(wanted.get(), change.mtu);
    return ErrnoOfNetlink(rtnl_link_change(requests.get(), present.get(), wanted.get(), 0));
}

int Links::SetAdminUp(uint32_t ifindex, bool up)
{
    return Apply(ifindex, {.flags = IFF_UP, .flagsSet = up ? unsigned{IFF_UP} : 0u});
}

int Links::SetMtu(uint32_t ifindex, uint32_t mtu) { return Apply(ifindex, {.mtu = mtu}); }

int Links::SetPromiscuous(uint32_t ifindex, bool promiscuous)
{
    return Apply(ifindex, {.flags = IFF_PROMISC, .flagsSet = promiscuous ? unsigned{IFF_PROMISC} : 0u});
}

}
