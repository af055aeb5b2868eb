#pragma once

// The checks that stand at the door of every exported function. Nothing that fails them reaches a memory or a
// network operation. All are re-entrant, and a text that passes costs no allocation. A NUL inside a
// std::string is a character like any other, and so no part of an identifier.

#include <string>

namespace vyn::common {

/// Whether the whole of `input` is an identifier: 1 to 1024 letters, digits, "_" and "-"; with
/// `withSeparators` also ";" and ".". Records nothing. Returns: 0 or 1; a null input is logged and gives 1.
unsigned int InputRegularMatching(const char* input, bool withSeparators);
unsigned int InputRegularMatching(const std::string& input, bool withSeparators = false);

/// The check of a text argument. Returns: 0; 2000057 for null, which is only logged; 1 with a last-error
/// record for an empty text (unless `allowEmpty`) and for one that InputRegularMatching refuses.
unsigned int CheckInputWithCharPtr(const char* input, bool allowEmpty, bool withSeparators);
unsigned int CheckInputWithCharPtr(const std::string& input, bool allowEmpty, bool withSeparators);

/// Whether `input` has 1 to 1024 characters, whatever they are. Returns: 0, or 1 with a record.
unsigned int CheckInputWithNormalLength(const char* input);
unsigned int CheckInputWithNormalLength(const std::string& input);

/// Whether `input` has exactly `length` characters. Returns: 0, or 1 with a record.
unsigned int CheckInputWithCharPtrLength(const char* input, unsigned long length);

}  // namespace vyn::common
