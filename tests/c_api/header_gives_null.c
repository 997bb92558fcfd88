/* Compiled with one public header forced in front (-include) and nothing else: code that uses
 * the header's NULL-returning functions needs NULL from that header alone. */
void* hxf_test_null(void);
void* hxf_test_null(void) { return NULL; }
