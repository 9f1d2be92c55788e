// The memory that a loaded module owns. Looks for byte sequences in it: in every block of the C heap at the
// moment when the module releases it, in the blocks that it still holds, and in its writable sections. The
// stack, and what system DLLs own, is not looked at. Also makes the module use an address again.

#pragma once

#include <windows.h>

#include <cstddef>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace NV::test {

// One object at a time. While it lives, the module's imports of the heap functions lead through here;
// blocks that the module allocated before count only when it releases them.
class ModuleMemory {
public:
    // Throws std::runtime_error when the module does not import what is to be watched.
    explicit ModuleMemory(HMODULE module);
    ~ModuleMemory();
    ModuleMemory(const ModuleMemory&) = delete;
    ModuleMemory& operator=(const ModuleMemory&) = delete;

    // What is looked for from now on, besides what was said before.
    void lookFor(const std::string& name, std::string_view bytes);
    void lookFor(const std::string& name, std::span<const unsigned char> bytes);
    // Begins anew, with nothing to look for.
    void forget();

    // What was found in released blocks since the last call, and is found in held blocks and in
    // the sections now: "NAME in a released block" and the like, a line each, sorted.
    std::string found();
    // The same without the blocks that are still held.
    std::string foundReleased();

    // Blocks released since forget.
    size_t released() const { return released_; }

    // The module's writable sections as they are mapped.
    const std::vector<std::span<unsigned char>>& sections() const { return sections_; }

    // From now on, this block does not go back to the heap when the module releases it: the module's next
    // call of malloc for the same size gets it. One block at a time.
    void useAgain(void* block);

    // For the functions that replace those of the heap.
    static void taken(void* block);
    static void given(void* block);
    // Keeps the released block if it is the one to be used again. False for any other.
    static bool keep(void* block);
    // The kept block if it has this size (bytes), otherwise null.
    static void* takeKept(size_t size);

private:
    struct Needle {
        std::string name;
        std::vector<unsigned char> bytes;
    };
    struct Import {
        void** entry;
        void* original;
    };

    void redirect(unsigned char* base);
    void search(std::span<const unsigned char> bytes, const std::string& where);
    std::string takeFindings();

    std::mutex lock_;
    std::vector<Needle> needles_;
    std::set<std::string> findings_;
    std::unordered_set<void*> held_;
    size_t released_ = 0;
    void* usedAgain_ = nullptr;
    bool kept_ = false;  // usedAgain_ is with nobody now
    std::vector<std::span<unsigned char>> sections_;
    std::vector<Import> imports_;
};

}  // namespace NV::test
