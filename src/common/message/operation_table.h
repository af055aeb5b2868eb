#pragma once

// The form of a service's operation table: the enumeration of its 16-bit codes and the map from each code to
// its name, both out of one list.
//
//   #define EXAMPLE_OPERATIONS(OPERATION) OPERATION(READ, 0) OPERATION(WRITE, 1)
//   VYN_OPERATION_TABLE(Example, gExampleNames, EXAMPLE_OPERATIONS)
//
// Each source file that includes a table has a copy of its map.

#include <map>
#include <string>

#define VYN_OPERATION_CODE(NAME, CODE) NAME = (CODE),
#define VYN_OPERATION_NAME(NAME, CODE) {NAME, #NAME},

/// What follows LIST are codes that travel without a name in the map.
#define VYN_OPERATION_TABLE(ENUM, NAMES, LIST, ...)                    \
  enum ENUM : unsigned short { LIST(VYN_OPERATION_CODE) __VA_ARGS__ }; \
  static const std::map<ENUM, std::string> NAMES = {LIST(VYN_OPERATION_NAME)};
