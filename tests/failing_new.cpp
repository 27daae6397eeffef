// Apart from the tests, so that no compiler sees both ends of an allocation.

#include "failing_new.h"

#include <cstdlib>
#include <new>

void *operator new(size_t size) {
    const bool fails = size == decoder_test::failing_size || size > decoder_test::failing_above;
    void *memory = fails ? nullptr : malloc(size > 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    free(memory);
}
