// The address sanitizer takes stock of the stack when a cancelled thread has unwound, and trips, in
// its own call of sigaltstack(), over what the frames that are gone have left in its books.
extern "C" const char* __asan_default_suppressions();
extern "C" const char* __asan_default_suppressions() {
    return "interceptor_name:sigaltstack\n";
}
