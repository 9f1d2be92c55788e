// What a library of this folder does when it is unloaded on this machine.

namespace __gnu_cxx {

// Of the standard library: releases the memory that it keeps for exceptions.
void __freeres();

}  // namespace __gnu_cxx

namespace {

// The standard library is a part of each library here, and would leave that memory behind.
__attribute__((destructor)) void releaseExceptionMemory()
{
    __gnu_cxx::__freeres();
}

}  // namespace
