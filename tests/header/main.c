/* Runs the C and C++ probes: each returns 0 on a fresh instance. */
#include <stdio.h>
int kvaec_header_c99_probe(void);
int kvaec_header_cxx_probe(void);
int main(void) {
    int a = kvaec_header_c99_probe();
    int b = kvaec_header_cxx_probe();
    printf("c99 probe %d, c++ probe %d\n", a, b);
    return (a == 0 && b == 0) ? 0 : 1;
}
