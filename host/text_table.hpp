// A table for people. For kel_query.
#pragma once

#include <string>
#include <vector>

namespace kel::host {

struct Column {
  std::string heading;
  bool number = false;  // then flush right
};

using Row = std::vector<std::string>;  // a text for each column

// Lines that end with a newline each.
std::string tableText(const std::vector<Column>& columns, const std::vector<Row>& rows);

}  // namespace kel::host
