#include "storage/EventsTable.h"

namespace almanor {

std::vector<sql::ColumnDefinition> EventsTable::definitions() const {
    return {
        id.definition(sql::primaryKey),
        name.definition(),
        alias.definition(),
        date.definition(),
        schedule.definition(),
        method.definition(),
        created.definition(),
        updated.definition(),
        deleted.definition(),
        syncId.definition(),
        syncDate.definition(),
        syncDirty.definition(sql::Default{false}),
        syncDeleted.definition(sql::Default{false}),
    };
}

} // namespace almanor
