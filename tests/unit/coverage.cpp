// Linked into the tests of a coverage build only. Many tests run in a process of their own that ends by _exit, which
// would lose what the process has counted.

extern "C" void              __gcov_dump();
extern "C" [[noreturn]] void __real__exit(int status);

extern "C" [[noreturn]] void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}
