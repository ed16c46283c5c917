// Lays out tables.
#include "host/text_table.hpp"

#include <fmt/core.h>

#include <algorithm>

namespace kel::host {
namespace {

std::string lineOf(const std::vector<Column>& columns, const std::vector<size_t>& widths,
                   const Row& row) {
  std::string line;
  for (size_t i = 0; i < columns.size(); ++i) {
    line += columns[i].number ? fmt::format("  {:>{}}", row.at(i), widths[i])
                              : fmt::format("  {:<{}}", row.at(i), widths[i]);
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

}  // namespace

std::string tableText(const std::vector<Column>& columns, const std::vector<Row>& rows) {
  Row headings;
  std::vector<size_t> widths;
  for (size_t i = 0; i < columns.size(); ++i) {
    headings.push_back(columns[i].heading);
    size_t width = columns[i].heading.size();
    for (const Row& row : rows) {
      width = std::max(width, row.at(i).size());
    }
    widths.push_back(width);
  }
  std::string text = lineOf(columns, widths, headings);
  for (const Row& row : rows) {
    text += lineOf(columns, widths, row);
  }
  return text;
}

}  // namespace kel::host
