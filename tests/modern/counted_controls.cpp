// Stands for comctl32.dll, and counts how often it is asked for its controls. A test makes a copy of the module
// import from it.

namespace {

int count = 0;

}  // namespace

// Exported by name, like those of the library that it stands for.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" void __stdcall InitCommonControls()
{
    ++count;
}

extern "C" int __stdcall InitCommonControlsEx(const void*)
{
    ++count;
    return 1;
}

extern "C" int CountedControls()
{
    return count;
}
// NOLINTEND(readability-identifier-naming)
