// The store as it would be with the changes of a transaction that is still open.
#pragma once

#include "platform/host/row_changes.h"
#include "platform/host/transaction.h"

namespace live {

class Overlay : public vshost::Reader {
public:
    Overlay(vshost::Reader &store, const vshost::RowChanges &rows) : store(store), rows(rows) {}

    vshost::VsStatus Get(std::string_view key, std::string &value) override;
    vshost::VsStatus Scan(std::string_view prefix, const vshost::Visit &visit, vshost::Order order) override;

private:
    vshost::Reader &store;
    const vshost::RowChanges &rows;
};

}
