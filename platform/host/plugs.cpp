#include "platform/host/plugs.h"

#include "platform/host/runtime.h"

namespace vshost {

namespace {

std::string PlugKey(std::string_view interface) { return Key({"plug", interface}); }
std::string BacklogKey() { return Key({"backlog"}); }

}

VsStatus ListPlugs(Reader &reader, std::vector<NamedPlug> &plugs)
{
    return ScanRows(reader, PlugKey(""), [&](std::string_view interface, std::string_view row) {
        NamedPlug &entry = plugs.emplace_back();
        entry.interface = interface;
        return DecodeRecord(row, entry.plug);
    });
}

VsStatus GetPlug(Reader &reader, std::string_view interface, Plug &plug)
{
    return GetRecord(reader, PlugKey(interface), plug);
}

VsStatus PutPlug(Transaction &transaction, std::string_view interface, const Plug &plug)
{
    return PutRecord(transaction, PlugKey(interface), plug);
}

VsStatus RemovePlug(Transaction &transaction, std::string_view interface)
{
    return transaction.Remove(PlugKey(interface));
}

VsStatus GetRaisedBacklog(Reader &reader, RaisedBacklog &raised)
{
    return GetRecord(reader, BacklogKey(), raised);
}

VsStatus PutRaisedBacklog(Transaction &transaction, const RaisedBacklog &raised)
{
    return PutRecord(transaction, BacklogKey(), raised);
}

VsStatus RemoveRaisedBacklog(Transaction &transaction) { return transaction.Remove(BacklogKey()); }

VsStatus RemoveTransientPlugs(Transaction &transaction)
{
    return RemoveAll(transaction, PlugKey(""), [](std::string_view row) {
        Plug plug;
        return DecodeRecord(row, plug) && !plug.IsKept();
    });
}

}
