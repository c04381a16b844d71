-- Makes the manual page of docs/configuration.md: NAME in place of its title, and lists in place of
-- its tables, for which a terminal is too narrow.

function Header(header)
  if header.level == 1 then
    return {
      pandoc.Header(1, "NAME"),
      pandoc.Para("ihproxyd.toml - what ihproxyd announces on which interface"),
      pandoc.Header(1, "DESCRIPTION"),
    }
  end
  header.level = header.level - 1
  return header
end

function Code(code)
  return pandoc.Strong(code.text)
end

-- Key, what it takes, what holds without it, effect.
function Table(table)
  local items = {}
  for _, row in ipairs(pandoc.utils.to_simple_table(table).rows) do
    local text = row[2][1].content
    text:insert(1, pandoc.Str("Takes "))
    text:insert(pandoc.Str("; without it: "))
    text:extend(row[3][1].content)
    text:insert(pandoc.Str("."))
    items[#items + 1] = { row[1][1].content, { { row[4][1], pandoc.Para(text) } } }
  end
  return pandoc.DefinitionList(items)
end
