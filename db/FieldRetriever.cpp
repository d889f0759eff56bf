#include "db/FieldRetriever.h"

#include "db/DB.h"
#include "db/RecordTables.h"

namespace {

// The address of one field of row 'index'. It goes through getRecord(index, true): the UI
// fills rows field by field before it stamps them, so the row must be reachable while still
// unstamped.
template <class Record, DBTable<Record>* DB::*Table, class Type, Type Record::*Member>
void* fieldOf(DB* db, jint index) {
  return static_cast<void*>(&((db->*Table)->getRecord(index, true)->*Member));
}

#define KJP_FIRST(a, b) a
#define KJP_SECOND(a, b) b
#define KJP_RETRIEVER(C, type, member, id, name) \
  fieldOf<KJP_FIRST C, &DB::KJP_SECOND C, type, &KJP_FIRST C::member>,
#define KJP_TABLE_RETRIEVERS(Record, table, tableID, tableName, FIELDS) FIELDS(KJP_RETRIEVER, (Record, table))

#define KJP_ID(C, type, member, id, name) id,
#define KJP_TABLE_IDS(Record, table, tableID, tableName, FIELDS) FIELDS(KJP_ID, _)

// The field ids as the lists give them, in table order: they must count up from 0, since the
// retrievers are looked up by id.
constexpr FieldID FIELD_IDS_IN_LIST_ORDER[] = {KJP_RECORD_TABLES(KJP_TABLE_IDS)};

constexpr bool countsUpFromZero() {
  for (size_t i = 0; i < sizeof(FIELD_IDS_IN_LIST_ORDER) / sizeof(FIELD_IDS_IN_LIST_ORDER[0]); i++) {
    if (FIELD_IDS_IN_LIST_ORDER[i] != static_cast<FieldID>(i)) {
      return false;
    }
  }
  return true;
}

static_assert(countsUpFromZero(), "the field lists give the field ids in order");
static_assert(sizeof(FIELD_IDS_IN_LIST_ORDER) / sizeof(FIELD_IDS_IN_LIST_ORDER[0]) == FIELD_COUNT,
              "one field id for each field of the lists");

}  // namespace

const FieldRetriever ourFieldRetriever[] = {KJP_RECORD_TABLES(KJP_TABLE_RETRIEVERS)};

static_assert(sizeof(ourFieldRetriever) / sizeof(ourFieldRetriever[0]) == FIELD_COUNT, "one retriever per field id");
