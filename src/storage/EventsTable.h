#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/Uuid.h"
#include "storage/sql/Column.h"
#include "storage/sql/Table.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

// The "events" table: the event's own fields, then the bookkeeping that the cloud push reads.
// The sync fields keep snake-case SQL names, unlike their field names.
struct ALMANOR_EXPORT EventsTable {
    sql::Table table{"events"};
    sql::Column<Uuid> id{"id"};
    sql::Column<std::string> name{"name"};
    sql::Column<std::optional<std::string>> alias{"alias"};
    sql::Column<Instant> date{"date"};
    sql::Column<std::int64_t> schedule{"schedule"};
    sql::Column<std::int64_t> method{"method"};
    sql::Column<Instant> created{"created"};
    sql::Column<Instant> updated{"updated"};
    sql::Column<std::optional<Instant>> deleted{"deleted"};
    sql::Column<std::optional<std::string>> syncId{"sync_id"};
    sql::Column<std::optional<Instant>> syncDate{"sync_date"};
    sql::Column<bool> syncDirty{"sync_dirty"};
    sql::Column<bool> syncDeleted{"sync_deleted"};

    // The column definitions of the table's creation, in column order.
    std::vector<sql::ColumnDefinition> definitions() const;
};

} // namespace almanor
