#pragma once

// Message bytes by arithmetic alone, without the flatbuffers library: a writer that lays a table out by hand
// and a reader that finds a field through the vtable. Both work on the same description of a table's fields.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace vyn::test {

struct RawField {
  enum Kind { kNumber, kText, kNumbers, kTexts, kTables, kTable };

  std::string name;
  unsigned voffset;  ///< in the vtable: 4 + 2 * id
  Kind kind;
  unsigned width = 4;  ///< of a number, in bytes
  std::vector<std::uint64_t> numbers = {};
  std::vector<std::string> texts = {};
  std::vector<std::vector<RawField>> tables = {};
};
using RawFields = std::vector<RawField>;

RawField U8(std::string name, unsigned voffset, std::uint8_t value);
RawField U16(std::string name, unsigned voffset, std::uint16_t value);
RawField U32(std::string name, unsigned voffset, std::uint32_t value);
RawField U64(std::string name, unsigned voffset, std::uint64_t value);
RawField Text(std::string name, unsigned voffset, std::string value);
RawField Texts(std::string name, unsigned voffset, std::vector<std::string> values);
RawField Numbers(std::string name, unsigned voffset, unsigned width, std::vector<std::uint64_t> values);
RawField Tables(std::string name, unsigned voffset, std::vector<RawFields> values);
RawField Table(std::string name, unsigned voffset, RawFields value);

/// A buffer whose root is a table of these fields. Strings and vectors follow in the order of the list; the
/// last byte of the buffer belongs to the last of them.
std::string RawBuffer(const RawFields& fields);

/// The value in the root table's slot for `field` (name and value of `field` do not matter), as text:
/// "absent", "7", "[1, 2]", "'text'", "['a', 'b']", "{...}".
std::string RawValue(const std::string& buffer, const RawField& field);
/// The value of `field` itself in the same form.
std::string RawValue(const RawField& field);

/// The voffsets of the root table's slots that hold a value.
std::vector<unsigned> RawSlots(const std::string& buffer);

}  // namespace vyn::test
