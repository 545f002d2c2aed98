// Which switches and ports a change of rows touches, as far as the data path goes by it.
#pragma once

#include <map>
#include <set>
#include <string>

#include "platform/host/row_changes.h"
#include "platform/host/transaction.h"

namespace live {

struct Touched {
    bool all = false; // plugs, NICs, portsets, or what holds for all switches
    std::set<std::string> switches;
    std::map<std::string, std::set<std::string>> ports; // by switch; their policies and static addresses
    bool addresses = false;                             // static addresses of these ports

    bool IsEmpty() const { return !all && switches.empty() && ports.empty(); }
    void Add(const Touched &other);
};

// `store` is what the rows change. Rows of tables that the data path doesn't know touch nothing.
Touched FindTouched(vshost::Reader &store, const vshost::RowChanges &rows);

}
