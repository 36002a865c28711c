#pragma once

// For programs of one source. Qt loses the memory of what it replaces when an object of a JSON text
// has a key twice, which a fuzzer finds soon.

extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core";
}

extern "C" const char *__lsan_default_options()
{
    return "print_suppressions=0";
}
