// Reads the virtual slot index of a member function from its pointer to
// member. Under the Itanium C++ ABI a pointer to a virtual member function
// holds 1 + the byte offset of its entry in the virtual table; the entries
// count from the table's address point, the two destructor entries included.
#ifndef NOX_TESTS_ABI_ABI_SLOTS_H_
#define NOX_TESTS_ABI_ABI_SLOTS_H_

#include <cstdint>
#include <cstring>

// Returns the slot index, or -1 when the member function is not virtual.
template <typename MemberFunction>
long virtualSlot(MemberFunction f) {
  static_assert(sizeof(MemberFunction) == 2 * sizeof(void*), "Itanium member pointer");
  uintptr_t raw;
  std::memcpy(&raw, &f, sizeof(raw));
  if ((raw & 1) == 0) return -1;
  return static_cast<long>((raw - 1) / sizeof(void*));
}

#endif  // NOX_TESTS_ABI_ABI_SLOTS_H_
