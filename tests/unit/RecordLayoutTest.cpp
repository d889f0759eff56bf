// The tables as the agent writes them against the tables as the tools' reader reads them: the
// reader's layout (TableLayout.java) is parsed from its source and compared field by field
// with the layout made from the records' field lists.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "db/DB.h"
#include "db/RecordLayout.h"

namespace {

struct ReaderTable {
  std::string name;
  std::vector<std::pair<std::string, int>> fields;
};

std::string readerSource() {
  std::ifstream in(std::string(KJP_TEST_DATA_DIR) + "/../../tools/src/com/kestrix/tools/snapshot/TableLayout.java");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The enum's constants: NAME(id, "name", "field:width", ...), in the order they stand.
std::map<int, ReaderTable> readerTables(const std::string& source) {
  std::map<int, ReaderTable> tables;
  size_t at = source.find("public enum TableLayout {");
  size_t end = source.find(';', at);
  while (at != std::string::npos) {
    size_t open = source.find('(', at);
    if (open == std::string::npos || open > end) {
      break;
    }
    size_t close = source.find(')', open);
    std::string arguments = source.substr(open + 1, close - open - 1);
    std::vector<std::string> parts;
    std::string part;
    std::istringstream split(arguments);
    while (std::getline(split, part, ',')) {
      size_t first = part.find_first_not_of(" \n\"");
      size_t last = part.find_last_not_of(" \n\"");
      parts.push_back(first == std::string::npos ? "" : part.substr(first, last - first + 1));
    }
    ReaderTable table;
    table.name = parts.at(1);
    for (size_t i = 2; i < parts.size(); i++) {
      size_t colon = parts[i].find(':');
      table.fields.emplace_back(parts[i].substr(0, colon), std::stoi(parts[i].substr(colon + 1)));
    }
    tables[std::stoi(parts.at(0))] = table;
    at = close + 1;
  }
  return tables;
}

}  // namespace

TEST(RecordLayoutTest, TheToolsReadEveryTableAsTheAgentWritesIt) {
  std::map<int, ReaderTable> reader = readerTables(readerSource());
  ASSERT_EQ(static_cast<size_t>(TABLE_COUNT), reader.size()) << "TableLayout.java as the test reads it";

  int compared = 0;
  for (int i = 0; i < ourRecordTableLayoutCount; i++) {
    const RecordTableLayout& native = ourRecordTableLayouts[i];
    ASSERT_EQ(1u, reader.count(native.myTableID)) << native.myTableName;
    const ReaderTable& tools = reader[native.myTableID];
    EXPECT_EQ(native.myTableName, tools.name) << "table " << native.myTableID;
    // A text field is read by the reader's own code for the string table.
    std::vector<std::pair<std::string, int>> fields;
    for (int f = 0; f < native.myFieldCount; f++) {
      if (native.myFields[f].myWidth != 0) {
        fields.emplace_back(native.myFields[f].myName, native.myFields[f].myWidth);
      }
    }
    EXPECT_EQ(fields, tools.fields) << native.myTableName;
    compared++;
  }
  // Telemetry (fixed values) and the table generations (no fields) have no field list.
  EXPECT_EQ(TABLE_COUNT - 2, compared);
  EXPECT_EQ(15u, reader[TELE_TABLE_ID].fields.size());
  EXPECT_TRUE(reader[TABLEGENERATION_TABLE_ID].fields.empty());
}
