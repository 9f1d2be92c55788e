// Memory that ends: the nth allocation fails. In a program that links memory_event.cpp, operator new is
// replaced, and the C heap is that of heap_count.

#pragma once

#include "event.h"

namespace NV::test {

enum class MemoryKind {
    operatorNew,  // std::bad_alloc
    cHeap,        // malloc, calloc and realloc give null
};

// Strikes the thread that has armed it and every other one. One at a time.
class MemoryEvent final : public Event {
public:
    explicit MemoryEvent(MemoryKind kind);

    void arm(size_t nth, Extent extent) override;
    bool disarm() override;
    const char* name() const override { return "allocation"; }

private:
    MemoryKind kind_;
};

// While it lives, the program's heap, by either way, cannot grow by more than so many bytes: a program
// that asks for too much does not take it from the machine.
class MemoryLimit {
public:
    explicit MemoryLimit(size_t bytes);
    ~MemoryLimit();
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

    // How far the heap would have grown if nothing had been refused, in bytes.
    static size_t mostAsked();
};

}  // namespace NV::test
