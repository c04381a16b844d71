#include "agent/ctl/Table.h"

#include "agent/ctl/Terminal.h"

#include <algorithm>
#include <cstddef>

namespace Ctl {

std::string Table::text() const {
    std::vector<std::size_t> widths(rows_.back().size());
    for (Row const& row : rows_)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    std::string text;
    for (Row const& row : rows_) {
        if (row.empty()) continue;
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            line.append(widths[i] - widthOf(row[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

} // namespace Ctl
