#pragma once

// For programs of one source. Qt leaks a value when a JSON object has its key a second time, which
// a fuzzer finds soon.

extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core";
}

extern "C" const char *__lsan_default_options()
{
    return "print_suppressions=0";
}
