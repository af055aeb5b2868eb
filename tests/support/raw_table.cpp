#include "support/raw_table.h"

#include <algorithm>
#include <cstring>

namespace vyn::test {

namespace {

template <typename Number>
Number Get(const std::string& buffer, std::size_t at) {
  Number number;
  std::memcpy(&number, &buffer.at(at), (void(buffer.at(at + sizeof(Number) - 1)), sizeof(Number)));
  return number;
}

std::uint64_t GetNumber(const std::string& buffer, std::size_t at, unsigned width) {
  return width == 1   ? Get<std::uint8_t>(buffer, at)
         : width == 2 ? Get<std::uint16_t>(buffer, at)
         : width == 4 ? Get<std::uint32_t>(buffer, at)
                      : Get<std::uint64_t>(buffer, at);
}

void Put(std::string& buffer, std::size_t at, std::uint64_t number, unsigned width) {
  buffer.replace(at, width, reinterpret_cast<const char*>(&number), width);
}

void Append(std::string& buffer, std::uint64_t number, unsigned width) {
  buffer.append(reinterpret_cast<const char*>(&number), width);
}

void Align(std::string& buffer, std::size_t width, std::size_t ahead = 0) {
  while ((buffer.size() + ahead) % width != 0) {
    buffer.push_back('\0');
  }
}

void PatchOffset(std::string& buffer, std::size_t at, std::size_t target) { Put(buffer, at, target - at, 4); }

std::size_t AppendTable(std::string& buffer, const RawFields& fields);

std::size_t AppendText(std::string& buffer, const std::string& text) {
  Align(buffer, 4);
  const std::size_t start = buffer.size();
  Append(buffer, text.size(), 4);
  buffer += text;
  buffer.push_back('\0');
  return start;
}

std::size_t AppendChild(std::string& buffer, const RawField& field) {
  if (field.kind == RawField::kText) {
    return AppendText(buffer, field.texts.at(0));
  }
  if (field.kind == RawField::kTable) {
    return AppendTable(buffer, field.tables.at(0));
  }
  Align(buffer, 4);
  if (field.kind == RawField::kNumbers) {
    Align(buffer, field.width, 4);
  }
  const std::size_t start = buffer.size();
  const std::size_t count = std::max({field.numbers.size(), field.texts.size(), field.tables.size()});
  Append(buffer, count, 4);
  for (std::size_t i = 0; i < count; ++i) {
    Append(buffer, field.kind == RawField::kNumbers ? field.numbers[i] : 0,
           field.kind == RawField::kNumbers ? field.width : 4);
  }
  for (std::size_t i = 0; field.kind != RawField::kNumbers && i < count; ++i) {
    const std::size_t element = field.kind == RawField::kTexts ? AppendText(buffer, field.texts[i])
                                                               : AppendTable(buffer, field.tables[i]);
    PatchOffset(buffer, start + 4 + 4 * i, element);
  }
  return start;
}

std::size_t AppendTable(std::string& buffer, const RawFields& fields) {
  unsigned slots = 4;
  for (const RawField& field : fields) {
    slots = std::max(slots, field.voffset + 2);
  }
  Align(buffer, 2);
  const std::size_t vtable = buffer.size();
  buffer.append(slots, '\0');
  Align(buffer, 4);
  const std::size_t table = buffer.size();
  Append(buffer, table - vtable, 4);
  std::vector<std::size_t> places;
  for (const RawField& field : fields) {
    const unsigned width = field.kind == RawField::kNumber ? field.width : 4;
    Align(buffer, width);
    places.push_back(buffer.size());
    Put(buffer, vtable + field.voffset, buffer.size() - table, 2);
    Append(buffer, field.kind == RawField::kNumber ? field.numbers.at(0) : 0, width);
  }
  Put(buffer, vtable, slots, 2);
  Put(buffer, vtable + 2, buffer.size() - table, 2);
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (fields[i].kind != RawField::kNumber) {
      PatchOffset(buffer, places[i], AppendChild(buffer, fields[i]));
    }
  }
  return table;
}

std::size_t Follow(const std::string& buffer, std::size_t at) { return at + Get<std::uint32_t>(buffer, at); }

/// Where the slot's value stands, or 0.
std::size_t Slot(const std::string& buffer, std::size_t table, unsigned voffset) {
  const std::size_t vtable = table - Get<std::int32_t>(buffer, table);
  const unsigned slots = Get<std::uint16_t>(buffer, vtable);
  const unsigned place = voffset < slots ? Get<std::uint16_t>(buffer, vtable + voffset) : 0;
  return place == 0 ? 0 : table + place;
}

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) {
    joined += (joined.empty() ? "" : ", ") + part;
  }
  return "[" + joined + "]";
}

std::string ValueIn(const std::string& buffer, std::size_t table, const RawField& field) {
  const std::size_t slot = Slot(buffer, table, field.voffset);
  if (slot == 0) {
    return "absent";
  }
  const auto text = [&](std::size_t at) {
    const auto size = Get<std::uint32_t>(buffer, at);
    return "'" + buffer.substr(at + 4, size) + (buffer.at(at + 4 + size) == '\0' ? "'" : " without NUL");
  };
  const auto inner = [&](std::size_t at) {
    std::vector<std::string> parts;
    for (const RawField& element : field.tables.at(0)) {
      parts.push_back(element.name + " " + ValueIn(buffer, at, element));
    }
    return Join(parts);
  };
  switch (field.kind) {
    case RawField::kNumber:
      return std::to_string(GetNumber(buffer, slot, field.width));
    case RawField::kText:
      return text(Follow(buffer, slot));
    case RawField::kTable:
      return inner(Follow(buffer, slot));
    default:
      break;
  }
  const std::size_t list = Follow(buffer, slot);
  std::vector<std::string> parts;
  for (std::size_t i = 0; i < Get<std::uint32_t>(buffer, list); ++i) {
    const std::size_t at = list + 4 + i * (field.kind == RawField::kNumbers ? field.width : 4);
    parts.push_back(field.kind == RawField::kNumbers ? std::to_string(GetNumber(buffer, at, field.width))
                    : field.kind == RawField::kTexts ? text(Follow(buffer, at))
                                                     : inner(Follow(buffer, at)));
  }
  return Join(parts);
}

RawField Scalar(std::string name, unsigned voffset, unsigned width, std::uint64_t value) {
  return {.name = std::move(name),
          .voffset = voffset,
          .kind = RawField::kNumber,
          .width = width,
          .numbers = {value}};
}

}  // namespace

RawField U8(std::string name, unsigned voffset, std::uint8_t value) {
  return Scalar(std::move(name), voffset, 1, value);
}
RawField U16(std::string name, unsigned voffset, std::uint16_t value) {
  return Scalar(std::move(name), voffset, 2, value);
}
RawField U32(std::string name, unsigned voffset, std::uint32_t value) {
  return Scalar(std::move(name), voffset, 4, value);
}
RawField U64(std::string name, unsigned voffset, std::uint64_t value) {
  return Scalar(std::move(name), voffset, 8, value);
}
RawField Text(std::string name, unsigned voffset, std::string value) {
  return {.name = std::move(name), .voffset = voffset, .kind = RawField::kText, .texts = {std::move(value)}};
}
RawField Texts(std::string name, unsigned voffset, std::vector<std::string> values) {
  return {.name = std::move(name), .voffset = voffset, .kind = RawField::kTexts, .texts = std::move(values)};
}
RawField Numbers(std::string name, unsigned voffset, unsigned width, std::vector<std::uint64_t> values) {
  return {.name = std::move(name),
          .voffset = voffset,
          .kind = RawField::kNumbers,
          .width = width,
          .numbers = std::move(values)};
}
RawField Tables(std::string name, unsigned voffset, std::vector<RawFields> values) {
  return {
      .name = std::move(name), .voffset = voffset, .kind = RawField::kTables, .tables = std::move(values)};
}
RawField Table(std::string name, unsigned voffset, RawFields value) {
  return {
      .name = std::move(name), .voffset = voffset, .kind = RawField::kTable, .tables = {std::move(value)}};
}

std::string RawBuffer(const RawFields& fields) {
  std::string buffer(4, '\0');
  PatchOffset(buffer, 0, AppendTable(buffer, fields));
  return buffer;
}

std::string RawValue(const std::string& buffer, const RawField& field) {
  return ValueIn(buffer, Follow(buffer, 0), field);
}

std::string RawValue(const RawField& field) { return RawValue(RawBuffer({field}), field); }

std::vector<unsigned> RawSlots(const std::string& buffer) {
  std::vector<unsigned> slots;
  const std::size_t table = Follow(buffer, 0);
  const std::size_t vtable = table - Get<std::int32_t>(buffer, table);
  for (unsigned voffset = 4; voffset < Get<std::uint16_t>(buffer, vtable); voffset += 2) {
    if (Slot(buffer, table, voffset) != 0) {
      slots.push_back(voffset);
    }
  }
  return slots;
}

}  // namespace vyn::test
