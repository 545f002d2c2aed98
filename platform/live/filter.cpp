#include "platform/live/filter.h"

#include <bpf/libbpf.h>
#include <cerrno>

namespace live {
namespace {

bpf_tc_hook Hook(uint32_t ifindex)
{
    bpf_tc_hook hook = {};
    hook.sz = sizeof(hook);
    hook.ifindex = static_cast<int>(ifindex);
    hook.attach_point = BPF_TC_INGRESS;
    return hook;
}

bpf_tc_opts Place()
{
    bpf_tc_opts place = {};
    place.sz = sizeof(place);
    place.handle = FILTER_HANDLE;
    place.priority = FILTER_PRIORITY;
    return place;
}

int Attach(uint32_t ifindex, int program, uint32_t flags)
{
    bpf_tc_hook hook = Hook(ifindex);
    bpf_tc_opts place = Place();
    place.prog_fd = program;
    place.flags = flags;
    return bpf_tc_attach(&hook, &place);
}

}

int QueryFilter(uint32_t ifindex, uint32_t &programId)
{
    bpf_tc_hook hook = Hook(ifindex);
    bpf_tc_opts place = Place();
    const int result = bpf_tc_query(&hook, &place);
    if (result == 0) programId = place.prog_id;
    // Without the queueing discipline there is nothing to ask.
    return result == -EINVAL ? -ENOENT : result;
}

int AddFilter(uint32_t ifindex, int program)
{
    bpf_tc_hook hook = Hook(ifindex);
    const int made = bpf_tc_hook_create(&hook);
    return made == 0 || made == -EEXIST ? Attach(ifindex, program, 0) : made;
}

int ReplaceFilter(uint32_t ifindex, int program) { return Attach(ifindex, program, BPF_TC_F_REPLACE); }

int RemoveFilter(uint32_t ifindex)
{
    bpf_tc_hook hook = Hook(ifindex);
    const bpf_tc_opts place = Place();
    return bpf_tc_detach(&hook, &place);
}

int RemoveClsact(uint32_t ifindex)
{
    bpf_tc_hook hook = Hook(ifindex);
    hook.attach_point = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);
    return bpf_tc_hook_destroy(&hook);
}

}
