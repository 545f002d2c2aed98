#include "platform/driver/request.h"

#include <cerrno>

namespace vshost {

namespace {

// The text of a name field; false when it has no terminator.
template<size_t size> bool ReadName(const char (&field)[size], std::string &name)
{
    name = FieldText(field);
    return name.size() < size;
}

}

int ReadProperty(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value)
{
    return ErrnoOf(ReadValue(reader, owner, key, value));
}

DriverRequest::DriverRequest(Reader &reader, Live &live, std::string_view raw, Transaction *transaction)
    : reader(reader), live(live), raw(raw), transaction(transaction)
{
    DecodeRecord(raw, input);
}

// Those of them that are ports of the switch.
int ListUplinkPortsOf(DriverRequest &request, std::vector<RunningPort> &ports)
{
    std::vector<std::string> portIds;
    if (int error = ErrnoOf(ListUplinkPorts(request.reader, request.switchId, portIds), 0)) return error;
    for (const std::string &portId : portIds) {
        uint32_t number = 0;
        const VsStatus status = GetPortNumber(request.reader, request.switchId, portId, number);
        if (status == STATUS_NOT_FOUND) continue;
        if (status) return ErrnoOf(status);
        ports.push_back({request.portset, request.switchId, portId, number});
    }
    return 0;
}

int ListPortIds(Reader &reader, std::string_view switchId, std::vector<std::string> &portIds)
{
    const VsStatus status = ForEachPort(reader, switchId, [&](std::string_view portId, uint32_t) {
        portIds.emplace_back(portId);
        return true;
    });
    return ErrnoOf(status, 0);
}

int DriverRequest::RequireRunning(int otherwise)
{
    if (int error = ErrnoOf(PortsetOfSwitch(reader, switchId, portset), otherwise)) return error;
    return ErrnoOf(GetRecord(reader, runtime::PortsetKey(portset), running), otherwise);
}

int DriverRequest::ResolvePortset(unsigned)
{
    if (!ReadName(input.name.portset, portset)) return EINVAL;
    if (int error = ErrnoOf(GetRecord(reader, runtime::PortsetKey(portset), running), ENOENT)) return error;
    return ErrnoOf(SwitchOfPortset(reader, portset, switchId), 0);
}

int DriverRequest::ResolveSwitch(unsigned)
{
    if (!ReadName(input.name.switchId, switchId)) return EINVAL;
    return RequireRunning(ENOENT);
}

int DriverRequest::ResolvePort(unsigned)
{
    if (!ReadName(input.port.dvPortId, portId)) return EINVAL;
    return ErrnoOf(GetPortNumber(reader, switchId, portId, portNumber), ENODEV);
}

int DriverRequest::ResolvePortNumber(unsigned)
{
    PortName port;
    portNumber = input.port.portId;
    if (int error = ErrnoOf(GetPortByNumber(reader, portNumber, port), ENODEV)) return error;
    switchId = port.switchId;
    portId = port.portId;
    return RequireRunning(ENODEV);
}

int DriverRequest::ResolveUplink(unsigned fields)
{
    if (!ReadName(input.args.uplink.name, uplink)) return EINVAL;
    if (uplink.empty()) return ENODEV;
    if (int error = ErrnoOf(GetRecord(reader, runtime::NicKey(uplink), nic), ENODEV)) return error;
    const bool bound = !switchId.empty() && FieldText(nic.switchId) == switchId;
    return fields & PORTSET && !bound ? ENODEV : 0;
}

int DriverRequest::CheckMirrorSession(unsigned)
{
    std::string sessionId;
    return ReadName(input.args.sessionId, sessionId) ? 0 : EINVAL;
}

int DriverRequest::Resolve(unsigned fields)
{
    using Resolver = int (DriverRequest::*)(unsigned fields);
    static constexpr std::pair<InputField, Resolver> RESOLVERS[] = {
        {PORTSET, &DriverRequest::ResolvePortset}, {SWITCH, &DriverRequest::ResolveSwitch},
        {PORT, &DriverRequest::ResolvePort},       {PORT_NUMBER, &DriverRequest::ResolvePortNumber},
        {UPLINK, &DriverRequest::ResolveUplink},   {MIRROR_SESSION, &DriverRequest::CheckMirrorSession},
    };
    for (const auto &[field, resolve] : RESOLVERS) {
        if (!(fields & field)) continue;
        if (int error = (this->*resolve)(fields)) return error;
    }
    return 0;
}

void DriverRequest::Add(std::string_view bytes)
{
    const uint32_t count = WordAt(answer, countOffset) + 1;
    answer.replace(countOffset, sizeof(count), BytesOf(count));
    answer.append(bytes.substr(0, entrySize));
    answer.resize(headerSize + count * entrySize);
}

size_t DriverRequest::Fitting(size_t room) const
{
    if (room >= answer.size()) return answer.size();
    if (!entrySize || room < headerSize) return room;
    return room - (room - headerSize) % entrySize;
}

}
