// SPDX-License-Identifier: Apache-2.0
// Test cases in text files, tests/tables: a case in each line, its columns separated by " | ".
// Lines that are empty or begin with "#" are skipped. In a column \n, \r, \t, \\, \| and \xNN are
// the byte, and \{N:text} is N times the text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace engines::http::test {

using Row = std::vector<std::string>;

/// The column that a line of a table begins with; removes it from the line.
inline std::string take_column(std::string_view& line, std::string_view end = " | ") {
  std::string column;
  while (!line.empty() && !line.starts_with(end)) {
    const char c = line[0];
    const char escaped = c == '\\' ? line.at(1) : '\0';
    line.remove_prefix(c == '\\' ? 2 : 1);
    constexpr std::string_view LETTERS = "nrt\\|", BYTES = "\n\r\t\\|";
    if (c != '\\') {
      column += c;
    } else if (const auto i = LETTERS.find(escaped); i != LETTERS.npos) {
      column += BYTES[i];
    } else if (escaped == 'x') {
      column += static_cast<char>(std::stoi(std::string(line.substr(0, 2)), nullptr, 16));
      line.remove_prefix(2);
    } else {
      const int count = std::stoi(take_column(line, ":"));
      const std::string text = take_column(line, "}");
      for (int n = 0; n < count; ++n) column += text;
    }
  }
  line.remove_prefix(std::min(end.size(), line.size()));
  return column;
}

/// The rows of tests/tables/NAME.txt, each of `columns` columns; missing ones at its end are empty.
inline std::vector<Row> table(const std::string& name, std::size_t columns) {
  std::ifstream file(std::string(TEST_TABLES) + "/" + name + ".txt");
  if (!file) throw std::runtime_error("no table " + name);
  std::vector<Row> rows;
  for (std::string text; std::getline(file, text);) {
    std::string_view line = text;
    if (line.empty() || line.starts_with('#')) continue;
    Row& row = rows.emplace_back();
    while (!line.empty()) row.push_back(take_column(line));
    if (row.size() > columns) throw std::runtime_error("too many columns in " + name + ": " + text);
    row.resize(columns);
  }
  return rows;
}

/// What is between the commas of a column, or between what else parts it.
inline Row parts(const std::string& column, char separator = ',') {
  std::istringstream stream(column);
  Row all;
  for (std::string part; std::getline(stream, part, separator);) all.push_back(part);
  return all;
}

/// Headers, each "name:value", from such parts of a column.
inline std::vector<std::pair<std::string, std::string>> headers(const std::string& column,
                                                                char separator = ',') {
  std::vector<std::pair<std::string, std::string>> all;
  for (const std::string& part : parts(column, separator)) {
    const std::size_t colon = part.find(':');
    all.emplace_back(part.substr(0, colon), part.substr(colon + 1));
  }
  return all;
}

}  // namespace engines::http::test
