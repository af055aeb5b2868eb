#pragma once

// The checks with which exported functions begin, before any memory or network operation. Any thread may call
// them. A text that passes costs no allocation. A NUL inside a std::string counts as a character, which no
// identifier has.

#include <string>

namespace vyn::common {

/// Whether the whole of `input` is an identifier: 1 to 1024 letters, digits, "_" and "-"; with
/// `withSeparators` also ";" and ".". Writes no last-error record. Returns: 0 or 1; a null input is logged
/// and gives 1.
unsigned int InputRegularMatching(const char* input, bool withSeparators);
unsigned int InputRegularMatching(const std::string& input, bool withSeparators = false);

/// Checks a text argument. Returns: 0; 2000057 for null, which is only logged; 1 with a last-error record for
/// an empty text (unless `allowEmpty`) and for one that InputRegularMatching refuses.
unsigned int CheckInputWithCharPtr(const char* input, bool allowEmpty, bool withSeparators);
unsigned int CheckInputWithCharPtr(const std::string& input, bool allowEmpty, bool withSeparators);

/// Checks the token of an application, which may be empty. Returns: as CheckInputWithCharPtr; the record has
/// "***" in place of the token.
unsigned int CheckToken(const char* token);

/// Whether `input` has 1 to 1024 characters of any kind. Returns: 0, or 1 with a last-error record.
unsigned int CheckInputWithNormalLength(const char* input);
unsigned int CheckInputWithNormalLength(const std::string& input);

/// Whether `input` has exactly `length` characters. Returns: 0, or 1 with a last-error record.
unsigned int CheckInputWithCharPtrLength(const char* input, unsigned long length);

}  // namespace vyn::common
