#include "platform/secure_memory/secure_memory.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

int memcpy_s(void* destination, std::size_t room, const void* source, std::size_t count) {
  if (destination == nullptr || source == nullptr) {
    return SECURE_NULL;
  }
  if (count > room) {
    return SECURE_RANGE;
  }
  std::memcpy(destination, source, count);
  return SECURE_OK;
}

int memset_s(void* destination, std::size_t room, int value, std::size_t count) {
  if (destination == nullptr) {
    return SECURE_NULL;
  }
  if (count > room) {
    return SECURE_RANGE;
  }
  std::memset(destination, value, count);
  return SECURE_OK;
}

int snprintf_s(char* destination, std::size_t room, std::size_t count, const char* format, ...) {
  if (destination == nullptr || format == nullptr || room == 0) {
    return -1;
  }
  const std::size_t limit = count < room - 1 ? count : room - 1;
  va_list arguments;
  va_start(arguments, format);
  const int wanted = std::vsnprintf(destination, limit + 1, format, arguments);
  va_end(arguments);
  if (wanted < 0) {
    destination[0] = '\0';
    return -1;
  }
  if (static_cast<std::size_t>(wanted) <= limit) {
    return wanted;
  }
  if (limit == count) {
    return static_cast<int>(limit);  // cut where the caller asked for it
  }
  destination[0] = '\0';
  return -1;
}
