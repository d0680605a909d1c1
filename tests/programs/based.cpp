// A library for the stack trace's tests to load.

extern "C" int functionOfBasedLibrary();

int functionOfBasedLibrary() {
    return 1;
}
