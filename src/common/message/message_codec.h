#pragma once

// Serialize and Deserialize of a message class, made out of two lists: the fields of its table, which flatc's
// static reflection gives, and the members that VYN_MESSAGE_FIELDS names. A field and a member of the same
// name belong together; a member without a field does not compile, a field without a member is neither
// written nor read.
//
// What a member looks like on the wire is told by FieldCodec: one specialisation a kind of field. A string or
// vector field that has a member is required.
//
// For source files only: this header brings the flatbuffers library. Generated headers are included before it
// is used.

#include "common/message/base_message.h"
#include "vyn/status.h"

#include <flatbuffers/flatbuffers.h>

#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// Nothing of this is exported: calls between these functions are direct.
#pragma GCC visibility push(hidden)

namespace vyn::common::codec {

static_assert(std::endian::native == std::endian::little, "lists of numbers are taken as they lie");

using Builder = flatbuffers::FlatBufferBuilder;
using Text = flatbuffers::String;
using TextList = flatbuffers::Vector<flatbuffers::Offset<Text>>;

/// Where a message class stands in the sources: its refusals are logged from there.
struct Place {
  const char* file;
  int line;
};
#define VYN_MESSAGE_PLACE (::vyn::common::codec::Place{__FILE_NAME__, __LINE__})

/// Logs "Unexpected nullptr value " with `what`. Returns: VYN_ERR_MESSAGE_DECODE.
std::uint32_t Refuse(Place place, std::string_view what);
/// The same with "{open}{name}{close}".
std::uint32_t Refuse(Place place, std::string_view open, std::string_view name, std::string_view close);

// --- kinds of field
// -----------------------------------------------------------------------------------------------

/// A scalar, widened or cut where member and field differ in width.
template <typename Wire, typename Member>
struct FieldCodec {
  static_assert(std::is_arithmetic_v<Wire> && std::is_arithmetic_v<Member>,
                "this kind of field needs a FieldCodec");
  static Wire Write(Builder&, Member member) { return static_cast<Wire>(member); }
  static std::uint32_t Read(Wire field, Member& member, Place) {
    member = static_cast<Member>(field);
    return VYN_OK;
  }
};

template <>
struct FieldCodec<const Text*, std::string> {
  static auto Write(Builder& builder, const std::string& member) { return builder.CreateString(member); }
  static std::uint32_t Read(const Text* field, std::string& member, Place) {
    member = field->str();
    return VYN_OK;
  }
};

template <>
struct FieldCodec<const TextList*, std::vector<std::string>> {
  static auto Write(Builder& builder, const std::vector<std::string>& member) {
    return builder.CreateVectorOfStrings(member);
  }
  static std::uint32_t Read(const TextList* field, std::vector<std::string>& member, Place place) {
    member.clear();
    member.reserve(field->size());
    for (const Text* data : *field) {
      if (data == nullptr) {
        return Refuse(place, "(data)");
      }
      member.emplace_back(data->data(), data->size());
    }
    return VYN_OK;
  }
};

template <typename Number>
struct FieldCodec<const flatbuffers::Vector<Number>*, std::vector<Number>> {
  static auto Write(Builder& builder, const std::vector<Number>& member) {
    return builder.CreateVector(member);
  }
  static std::uint32_t Read(const flatbuffers::Vector<Number>* field, std::vector<Number>& member, Place) {
    member.assign(field->data(), field->data() + field->size());
    return VYN_OK;
  }
};

/// A set travels as a list in ascending order.
template <typename Number>
struct FieldCodec<const flatbuffers::Vector<Number>*, std::set<Number>> {
  static auto Write(Builder& builder, const std::set<Number>& member) {
    Number* place = nullptr;
    const auto offset = builder.CreateUninitializedVector(member.size(), &place);
    for (const Number number : member) {
      flatbuffers::WriteScalar(place++, number);
    }
    return flatbuffers::Offset<flatbuffers::Vector<Number>>(offset);
  }
  static std::uint32_t Read(const flatbuffers::Vector<Number>* field, std::set<Number>& member, Place) {
    member.clear();
    for (const Number number : *field) {
      member.insert(member.end(), number);
    }
    return VYN_OK;
  }
};

// --- which field belongs to which member
// --------------------------------------------------------------------------

template <typename Table>
Table TableOfMessage(const Message<Table>&);
template <typename Class>
using TableOf = decltype(TableOfMessage(std::declval<const Class&>()));
template <typename Class>
using FieldsOf = decltype(std::declval<Class&>().Fields());
template <typename Class, std::size_t Member>
using MemberType = std::remove_reference_t<std::tuple_element_t<Member, FieldsOf<Class>>>;
template <typename Table, std::size_t Field>
using FieldType = typename Table::Traits::template FieldType<Field>;

template <typename Class>
inline constexpr std::size_t kMemberCount = std::tuple_size_v<FieldsOf<Class>>;
template <typename Table>
inline constexpr std::size_t kFieldCount = Table::Traits::fields_number;

/// The names in Class::kFieldNames, "first, record.second" giving "first" and "second".
template <typename Class>
constexpr std::array<std::string_view, kMemberCount<Class>> MemberNames() {
  std::array<std::string_view, kMemberCount<Class>> names;
  std::string_view rest = Class::kFieldNames;
  for (std::string_view& name : names) {
    name = rest.substr(0, rest.find(','));
    rest.remove_prefix(name.size() == rest.size() ? rest.size()
                                                  : rest.find_first_not_of(' ', name.size() + 1));
    name.remove_prefix(name.find_last_of('.') + 1);
  }
  return names;
}
template <typename Class>
inline constexpr auto kMemberNames = MemberNames<Class>();

/// The table's field of a member. Fails to compile when there is none.
template <typename Class>
consteval std::size_t FieldOf(std::size_t member) {
  std::size_t field = 0;
  while (kMemberNames<Class>[member] != TableOf<Class>::Traits::field_names.at(field)) {
    ++field;
  }
  return field;
}

/// The member of a table's field, or kMemberCount.
template <typename Class>
consteval std::size_t MemberOf(std::size_t field) {
  std::size_t member = 0;
  while (member < kMemberCount<Class> &&
         kMemberNames<Class>[member] != TableOf<Class>::Traits::field_names.at(field)) {
    ++member;
  }
  return member;
}

// --- writing
// ------------------------------------------------------------------------------------------------------

/// Empties the builder and forgets the message's earlier buffer. Returns: `builder`.
inline Builder& StartBuffer(BaseMessage& message, Builder& builder) {
  message.mSerializedData = nullptr;
  message.mSerializedDataSize = 0;
  builder.Reset();
  return builder;
}

/// Finishes the buffer with `root` and records it in the message. Returns: VYN_OK.
template <typename Root>
std::uint32_t FinishBuffer(BaseMessage& message, Builder& builder, flatbuffers::Offset<Root> root) {
  builder.Finish(root);
  message.mSerializedData = builder.GetBufferPointer();
  message.mSerializedDataSize = builder.GetSize();
  return VYN_OK;
}

template <std::size_t Field, typename Class>
auto WriteField(Builder& builder, Class& message) {
  using Wire = FieldType<TableOf<Class>, Field>;
  constexpr std::size_t member = MemberOf<Class>(Field);
  if constexpr (member < kMemberCount<Class>) {
    return FieldCodec<Wire, MemberType<Class, member>>::Write(builder, std::get<member>(message.Fields()));
  } else {
    return flatbuffers::Offset<std::remove_const_t<std::remove_pointer_t<Wire>>>();
  }
}

/// Writes the message's table, strings and vectors first, in the order of the fields. Returns: its offset.
template <typename Class>
auto WriteTable(Builder& builder, Class& message) {
  return [&]<std::size_t... Field>(std::index_sequence<Field...>) {
    // Braces: left to right.
    const std::tuple fields{WriteField<Field>(builder, message)...};
    return TableOf<Class>::Traits::Create(builder, std::get<Field>(fields)...);
  }
  (std::make_index_sequence<kFieldCount<TableOf<Class>>>());
}

/// The whole of a Serialize.
template <typename Class>
std::uint32_t Encode(Class& message, Builder& builder) {
  StartBuffer(message, builder);
  return FinishBuffer(message, builder, WriteTable(builder, message));
}

// --- reading
// ------------------------------------------------------------------------------------------------------

/// The received bytes of a message, as a verified table.
class Input {
 public:
  /// Bytes at an address that suits no 8-byte number are copied; the transport delivers them where they are
  /// read.
  explicit Input(const BaseMessage& message) : mSize(message.mInputRawDataSize) {
    const bool suits =
        reinterpret_cast<std::uintptr_t>(message.mInputRawData) % sizeof(flatbuffers::largest_scalar_t) == 0;
    if (mSize > BaseMessage::kMaxInputSize) {
      return;
    }
    if (suits) [[likely]] {
      mBytes = message.mInputRawData;
    } else if (mCopy.reset(new (std::nothrow) char[mSize]); mCopy != nullptr) {
      mBytes = static_cast<const char*>(std::memcpy(mCopy.get(), message.mInputRawData, mSize));
    }
  }

  /// Returns: the root, or null when it is refused. Valid as long as this object.
  template <typename Table>
  const Table* Root() {
    if (mBytes == nullptr) {
      return nullptr;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(mBytes);
    flatbuffers::Verifier verifier(bytes, mSize, flatbuffers::Verifier::Options());
    if (!verifier.VerifyBuffer<Table>(nullptr)) {
      return nullptr;
    }
    const auto* root = flatbuffers::GetRoot<Table>(bytes);
    return Accept(*root, std::make_index_sequence<kFieldCount<Table>>()) ? root : nullptr;
  }

 private:
  // What the library's verifier leaves open. The entries of a list may share their text, so that few bytes
  // could fill all memory; an honest buffer holds every text once. And a list of 8-byte numbers is checked
  // for its size alone.
  template <typename Table, std::size_t... Field>
  bool Accept(const Table& root, std::index_sequence<Field...>) {
    return (Accept(root.template get_field<Field>()) && ...);
  }
  template <typename Other>
  bool Accept(Other) {
    return true;
  }
  template <typename Number>
  bool Accept(const flatbuffers::Vector<Number>* list) {
    return sizeof(Number) <= sizeof(flatbuffers::uoffset_t) || list == nullptr || list->size() == 0 ||
           reinterpret_cast<std::uintptr_t>(list->Data()) % sizeof(Number) == 0;
  }
  template <typename Element>
  bool Accept(const flatbuffers::Vector<flatbuffers::Offset<Element>>* list) {
    if (list != nullptr) {
      for (const Element* element : *list) {
        mText += TextOf(element);
      }
    }
    return mText <= mSize;
  }

  /// The bytes of text in an entry.
  static std::size_t TextOf(const Text* text) { return text == nullptr ? 0 : text->size(); }
  template <typename Number>
  static std::size_t TextOf(Number) {
    return 0;
  }
  template <typename Table>
  static std::size_t TextOf(const Table* table) {
    return [&]<std::size_t... Field>(std::index_sequence<Field...>) {
      return (TextOf(table->template get_field<Field>()) + ... + 0);
    }
    (std::make_index_sequence<kFieldCount<Table>>());
  }

  std::unique_ptr<char[]> mCopy;
  const char* mBytes = nullptr;
  const std::size_t mSize;
  std::size_t mText = 0;
};

/// How the log names an absent field of a class: what stands around the field's name.
struct Naming {
  std::string_view open = "(";
  std::string_view close = ")";
};
template <typename Class>
inline constexpr Naming kNaming{};

template <std::size_t Member, typename Class>
std::uint32_t ReadField(const TableOf<Class>& table, Class& message, Place place) {
  using Wire = FieldType<TableOf<Class>, FieldOf<Class>(Member)>;
  const Wire field = table.template get_field<FieldOf<Class>(Member)>();
  if constexpr (std::is_pointer_v<Wire>) {
    if (field == nullptr) [[unlikely]] {
      return Refuse(place, kNaming<Class>.open, kMemberNames<Class>[Member], kNaming<Class>.close);
    }
  }
  return FieldCodec<Wire, MemberType<Class, Member>>::Read(field, std::get<Member>(message.Fields()), place);
}

/// The whole of a Deserialize. The members are read in their order, up to the first failure. Flattened, as a
/// reader written out by hand would be.
template <typename Class>
[[gnu::flatten]] std::uint32_t Decode(Class& message, Place place) {
  Input input(message);
  const auto* root = input.Root<TableOf<Class>>();
  if (root == nullptr) [[unlikely]] {
    return Refuse(place, "(instance)");
  }
  std::uint32_t status = VYN_OK;
  [&]<std::size_t... Member>(std::index_sequence<Member...>) {
    (void)(!Failed(status = ReadField<Member>(*root, message, place)) && ...);
  }
  (std::make_index_sequence<kMemberCount<Class>>());
  return status;
}

}  // namespace vyn::common::codec

#pragma GCC visibility pop

/// The source side of VYN_MESSAGE_FIELDS, for a class of the current namespace.
#define VYN_MESSAGE_CODEC(CLASS, BUILDER)                                                   \
  std::uint32_t CLASS::Serialize() { return ::vyn::common::codec::Encode(*this, BUILDER); } \
  std::uint32_t CLASS::Deserialize() { return ::vyn::common::codec::Decode(*this, VYN_MESSAGE_PLACE); }
