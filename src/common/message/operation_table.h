#pragma once

// Defines the operations of a service from one list: the enumeration of its 16-bit codes, and a constant map
// from each code to its name.
//
//   #define EXAMPLE_OPERATIONS(OPERATION) OPERATION(READ, 0) OPERATION(WRITE, 1)
//   VYN_OPERATION_TABLE(Example, gExampleNames, EXAMPLE_OPERATIONS)
//
// Each source file that includes a table has a copy of its map.

#include <map>
#include <string>

#define VYN_OPERATION_CODE(NAME, CODE) NAME = (CODE),
#define VYN_OPERATION_NAME(NAME, CODE) {NAME, #NAME},

/// The enumerators after LIST have no name in the map.
#define VYN_OPERATION_TABLE(ENUM, NAMES, LIST, ...)                    \
  enum ENUM : unsigned short { LIST(VYN_OPERATION_CODE) __VA_ARGS__ }; \
  static const std::map<ENUM, std::string> NAMES = {LIST(VYN_OPERATION_NAME)};
