// Runs programs of CNG calls on the whole of the module but its dialog, with faults of the token, of the
// log and of memory in between. An input is a program: first a byte for how it begins, then instructions
// of twelve bytes each, an opcode and its operands. A model says what each call may answer, write and
// leave behind.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <random>

#include "operations.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed);
extern "C" const char* __asan_default_options();  // NOLINT(bugprone-reserved-identifier)

namespace NV::fuzz {

namespace {

constexpr size_t headSize = 1;
constexpr size_t instructionSize = 12;

// An operation that matters more stands here more often.
constexpr Operation operations[] = {
    openProvider,
    openProvider,
    freeProvider,
    getProviderProperty,
    setProviderProperty,
    isAlgSupported,
    enumAlgorithms,
    refusedOperation,
    openKey,
    openKey,
    openKey,
    openKey,
    freeKey,
    freeKey,
    getKeyProperty,
    getKeyProperty,
    setKeyProperty,
    setKeyProperty,
    enumKeys,
    enumKeys,
    freeBuffer,
    importKey,
    importKey,
    exportKey,
    signHash,
    signHash,
    signHash,
    verifySignature,
    verifySignature,
    encrypt,
    encrypt,
    decrypt,
    decrypt,
    secretAgreement,
    secretAgreement,
    secretAgreement,
    deriveKey,
    deriveKey,
    deriveKey,
    freeSecret,
    changePin,
    addTokenFault,
    addTokenFault,
    addTokenFault,
    addTokenFault,
    clearTokenFaults,
    changeLog,
    changeLog,
    failMemory,
    failMemory,
    useToken,
};

World& theWorld()
{
    static auto* const world = new World;
    return *world;
}

void printCalls()
{
    std::fprintf(stderr, "calls: %" PRIu64 "\n", callCount());
}

// Lets most programs begin with an open provider, its first keys, two peers' keys and an agreed secret.
void prepare(World& world, uint8_t head)
{
    struct Step {
        Operation operation;
        uint8_t operands[3];
    };
    static constexpr Step steps[] = {{openProvider, {}},
                                     {openKey, {0, 0, 0}},
                                     {openKey, {0, 1, 0}},
                                     {openKey, {0, 2, 0}},
                                     {importKey, {0, 0, 1}},
                                     {importKey, {0, 2, 1}},
                                     {secretAgreement, {0, 0x10, 0x00}},
                                     {secretAgreement, {0, 0x10, 0x10}}};
    constexpr uint8_t keyKinds = 8;
    if (head / keyKinds % 4 == 3)
        return;
    for (const Step& step : steps) {
        Operands operands(step.operands, sizeof step.operands);
        step.operation(world, operands);
    }
}

// The first of the rest of a program.
void runInstruction(World& world, std::span<const uint8_t> rest)
{
    const auto instruction = rest.first(std::min(rest.size(), instructionSize));
    Operands operands(instruction.data() + 1, instruction.size() - 1);
    operations[instruction.front() % std::size(operations)](world, operands);
}

// The lowest three bits of the first byte choose the keys on the token, the next two whether to begin with
// an open provider, and the rest how often the instructions run.
void run(World& world, std::span<const uint8_t> program)
{
    const uint8_t head = program.empty() ? 0 : program.front();
    world.begin(head);
    prepare(world, head);
    for (unsigned round = 0; round <= head / 32U; ++round) {
        for (size_t place = headSize; place < program.size(); place += instructionSize)
            runInstruction(world, program.subspan(place));
    }
    world.end();
}

// Blocks that a program leaves.
long blocksLeftBy(World& world, std::span<const uint8_t> program)
{
    const long before = liveBlocks();
    run(world, program);
    return liveBlocks() - before;
}

// Changes whole instructions, so that the ones behind keep their meaning.
class Mutation {
public:
    Mutation(uint8_t* data, size_t size, size_t maxSize, unsigned int seed)
        : program_(data, data + size), most_(maxSize), random_(seed)
    {
        program_.resize(std::max(headSize, headSize + wholeSize()));
    }

    size_t write(uint8_t* data)
    {
        switch (below(8)) {
        case 0:
        case 1:
        case 2:
            for (size_t left = 1 + below(6); left > 0; --left)
                insert(randomInstruction());
            break;
        case 3:
            insert(some());
            break;
        case 4:
            remove();
            break;
        case 5:
            program_.front() = static_cast<uint8_t>(below(256));
            break;
        default:
            change();
            break;
        }
        program_.resize(std::min(program_.size(), most_));
        std::ranges::copy(program_, data);
        return program_.size();
    }

private:
    size_t below(size_t end) { return random_() % end; }
    size_t wholeSize() const
    {
        return program_.size() < headSize
                   ? 0
                   : (program_.size() - headSize) / instructionSize * instructionSize;
    }
    size_t count() const { return wholeSize() / instructionSize; }

    Bytes::iterator place(size_t instruction)
    {
        return program_.begin() +
               static_cast<std::ptrdiff_t>(headSize + instruction * instructionSize);
    }

    Bytes randomInstruction()
    {
        Bytes instruction(instructionSize);
        for (uint8_t& byte : instruction)
            byte = static_cast<uint8_t>(below(256));
        // Most handles are good ones: see pickProvider.
        for (const size_t operand : {size_t{1}, size_t{2}}) {
            if (below(4) != 0)
                instruction[operand] = static_cast<uint8_t>(instruction[operand] & 0xF7);
        }
        return instruction;
    }

    Bytes some()
    {
        if (count() == 0)
            return randomInstruction();
        const auto from = place(below(count()));
        return {from, from + instructionSize};
    }

    void insert(const Bytes& instruction)
    {
        program_.insert(place(below(count() + 1)), instruction.begin(), instruction.end());
    }

    void remove()
    {
        if (count() == 0)
            return;
        const auto from = place(below(count()));
        program_.erase(from, from + instructionSize);
    }

    void change()
    {
        if (count() == 0)
            return;
        LLVMFuzzerMutate(&*place(below(count())), instructionSize, instructionSize);
    }

    Bytes program_;
    size_t most_;
    std::minstd_rand random_;
};

}  // namespace

}  // namespace NV::fuzz

using namespace NV::fuzz;  // the definitions below are libFuzzer's

// Short stacks of allocations, and a quarantine that does not fill the processor's cache: the run makes
// millions of calls.
extern "C" const char* __asan_default_options()  // NOLINT(bugprone-reserved-identifier)
{
    return "malloc_context_size=6:quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    [[maybe_unused]] static const int registered = std::atexit(printCalls);
    World& world = theWorld();
    const std::span<const uint8_t> program(data, size);
    // What is made once and kept for the life of the process is not left the second time.
    HOLDS(blocksLeftBy(world, program) == 0 || blocksLeftBy(world, program) == 0);
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed)
{
    return Mutation(data, size, maxSize, seed).write(data);
}
