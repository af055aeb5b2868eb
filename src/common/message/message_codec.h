#pragma once

// Makes Serialize and Deserialize of a message class from two lists: the fields of its table, from flatc's
// static reflection, and the members that VYN_MESSAGE_FIELDS names. A member is matched with the field of the
// same name. A member without a field does not compile; a field without a member is neither written nor read.
//
// FieldCodec converts between a field and its member; each kind of field has a specialisation. A string or
// vector field that has a member is required.
//
// Include it in source files only, because it includes the flatbuffers library. A source file also includes
// the generated headers of its tables. Nothing here has state.

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

// Hidden: the library does not export these functions, so that calls between them are direct.
#pragma GCC visibility push(hidden)

namespace vyn::common::codec {

static_assert(std::endian::native == std::endian::little, "lists of numbers are copied without conversion");

using Builder = flatbuffers::FlatBufferBuilder;
using Text = flatbuffers::String;
using TextList = flatbuffers::Vector<flatbuffers::Offset<Text>>;

/// The source line of a message class. Log lines about a refused message name it.
struct Place {
  const char* file;
  int line;
};
#define VYN_MESSAGE_PLACE (::vyn::common::codec::Place{__FILE_NAME__, __LINE__})

/// Logs "Unexpected nullptr value " with `what`. Returns: VYN_ERR_MESSAGE_DECODE.
std::uint32_t Refuse(Place place, std::string_view what);
/// The same with "{open}{name}{close}".
std::uint32_t Refuse(Place place, std::string_view open, std::string_view name, std::string_view close);

// --- kinds of field ----------------------------------------------------------------------------------------

/// A scalar. It is widened or cut when member and field differ in width.
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

/// A set is sent as a list in ascending order.
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

// --- which field belongs to which member -------------------------------------------------------------------

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

/// Returns: the names in Class::kFieldNames. "first, record.second" gives "first" and "second".
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

/// Returns: the index of the field that belongs to `member`. Does not compile when there is none.
template <typename Class>
consteval std::size_t FieldOf(std::size_t member) {
  std::size_t field = 0;
  while (kMemberNames<Class>[member] != TableOf<Class>::Traits::field_names.at(field)) {
    ++field;
  }
  return field;
}

/// Returns: the index of the member that belongs to `field`, or kMemberCount.
template <typename Class>
consteval std::size_t MemberOf(std::size_t field) {
  std::size_t member = 0;
  while (member < kMemberCount<Class> &&
         kMemberNames<Class>[member] != TableOf<Class>::Traits::field_names.at(field)) {
    ++member;
  }
  return member;
}

// --- writing -----------------------------------------------------------------------------------------------

/// Empties the builder and sets the message's SerializedData to null. Returns: `builder`.
inline Builder& StartBuffer(BaseMessage& message, Builder& builder) {
  message.mSerializedData = nullptr;
  message.mSerializedDataSize = 0;
  builder.Reset();
  return builder;
}

/// Finishes the buffer with `root` and sets the message's SerializedData. Returns: VYN_OK.
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
    // Braces, because they evaluate from left to right.
    const std::tuple fields{WriteField<Field>(builder, message)...};
    return TableOf<Class>::Traits::Create(builder, std::get<Field>(fields)...);
  }
  (std::make_index_sequence<kFieldCount<TableOf<Class>>>());
}

/// The body of Serialize.
template <typename Class>
std::uint32_t Encode(Class& message, Builder& builder) {
  StartBuffer(message, builder);
  return FinishBuffer(message, builder, WriteTable(builder, message));
}

// --- reading -----------------------------------------------------------------------------------------------

/// The received bytes of a message, as a verified table.
class Input {
 public:
  /// Copies the bytes if their address is not aligned for 8-byte numbers. Bytes from the RPC transport are
  /// aligned.
  explicit Input(const BaseMessage& message) : mSize(message.mInputRawDataSize) {
    const bool aligned =
        reinterpret_cast<std::uintptr_t>(message.mInputRawData) % sizeof(flatbuffers::largest_scalar_t) == 0;
    if (mSize > BaseMessage::kMaxInputSize) {
      return;
    }
    if (aligned) [[likely]] {
      mBytes = message.mInputRawData;
    } else if (mCopy.reset(new (std::nothrow) char[mSize]); mCopy != nullptr) {
      mBytes = static_cast<const char*>(std::memcpy(mCopy.get(), message.mInputRawData, mSize));
    }
  }

  /// Returns: the verified root table, which is valid as long as this object, or null.
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
  // Two checks that the library's verifier does not make. The entries of a list may share one text, so that a
  // small buffer could fill all memory when it is read; our writer stores every text separately, so all texts
  // together must fit into the buffer. And the verifier does not check that a list of 8-byte numbers is
  // aligned.
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

  /// Returns: the bytes of text in an entry of a list.
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
  std::size_t mText = 0;  ///< bytes of text in the lists checked so far
};

/// The texts around a field's name in the log line about an absent field.
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

/// The body of Deserialize. Reads the members in their order, up to the first failure. `flatten` inlines all
/// calls, as in a function written by hand.
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

/// Defines Serialize and Deserialize of CLASS, a class of the current namespace.
#define VYN_MESSAGE_CODEC(CLASS, BUILDER)                                                   \
  std::uint32_t CLASS::Serialize() { return ::vyn::common::codec::Encode(*this, BUILDER); } \
  std::uint32_t CLASS::Deserialize() { return ::vyn::common::codec::Decode(*this, VYN_MESSAGE_PLACE); }
