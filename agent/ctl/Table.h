// Rows of words, under headings or without, in columns as wide as they need.
#pragma once

#include <string>
#include <vector>

namespace Ctl {

class Table {
  public:
    using Row = std::vector<std::string>;
    explicit Table(Row headings = {}) { rows_.push_back(std::move(headings)); }

    /// As long as the headings and the other rows.
    void add(Row row) { rows_.push_back(std::move(row)); }
    bool empty() const { return rows_.size() == 1; }
    /// Lines without spaces at their ends. The last column is not filled up.
    std::string text() const;

  private:
    std::vector<Row> rows_;
};

} // namespace Ctl
