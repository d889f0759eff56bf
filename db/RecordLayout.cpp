#include "db/RecordLayout.h"

#include "db/RecordTables.h"

namespace {

template <class Type>
constexpr int streamWidth() {
  return sizeof(Type) == 4 || sizeof(Type) == 8 ? static_cast<int>(sizeof(Type)) : 0;
}

template <>
constexpr int streamWidth<char*>() {
  return 0;
}

#define KJP_FIELD_LAYOUT(C, type, member, id, name) RecordFieldLayout{name, streamWidth<type>()},
#define KJP_FIELD_LAYOUTS(Record, table, tableID, tableName, FIELDS) \
  const RecordFieldLayout FIELDS##_LAYOUT[] = {FIELDS(KJP_FIELD_LAYOUT, _)};
KJP_RECORD_TABLES(KJP_FIELD_LAYOUTS)

}  // namespace

#define KJP_TABLE_LAYOUT(Record, table, tableID, tableName, FIELDS) \
  RecordTableLayout{tableID, tableName, FIELDS##_LAYOUT,           \
                    static_cast<int>(sizeof(FIELDS##_LAYOUT) / sizeof(FIELDS##_LAYOUT[0]))},

const RecordTableLayout ourRecordTableLayouts[] = {KJP_RECORD_TABLES(KJP_TABLE_LAYOUT)};
const int ourRecordTableLayoutCount = static_cast<int>(sizeof(ourRecordTableLayouts) / sizeof(ourRecordTableLayouts[0]));
