// A function that stands before an entry of a table of functions, such as PKCS#11's list or CNG's table.
// Used to know which call is under way.

#pragma once

namespace NV::tool {

// One hook for each tag, because an entry has no room for a context. Tag::around(work) makes the call:
// it runs `work` and returns its result. The entry that the hook stands before is `real`.
template <typename Function, typename Tag>
struct CallHook;

template <typename Result, typename... Arguments, typename Tag>
struct CallHook<Result (*)(Arguments...), Tag> {
    using Function = Result (*)(Arguments...);

    static inline Function real = nullptr;

    static Result call(Arguments... arguments)
    {
        return Tag::around([&] { return real(arguments...); });
    }

    // Puts the hook into the table. An empty entry stays empty.
    static void install(Function& entry)
    {
        if (entry == nullptr || entry == &call)
            return;
        real = entry;
        entry = &call;
    }

    // Puts the entry back, unless it was replaced meanwhile.
    static void remove(Function& entry)
    {
        if (entry == &call)
            entry = real;
    }
};

}  // namespace NV::tool
