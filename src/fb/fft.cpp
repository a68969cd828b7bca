// Placeholder: not yet implemented.
#include "fb.h"

void aec_fft4(float *x) {
    (void)x;
}

void aec_fft16(float *x, float *work) {
    (void)x;
    (void)work;
}

void aec_fft80(float *x, float *work) {
    (void)x;
    (void)work;
}

void aecfb_fft8(float *x, float *work) {
    (void)x;
    (void)work;
}

void aecfb_ifft8(float *x, float *work) {
    (void)x;
    (void)work;
}

void aecfb_fft5a(const float *in, float *work) {
    (void)in;
    (void)work;
}

void aecfb_ifft5a(const float *in, float *work) {
    (void)in;
    (void)work;
}

void aecfb_fft40(float *x, float *work) {
    (void)x;
    (void)work;
}

void aecfb_ifft40(float *x, float *work) {
    (void)x;
    (void)work;
}

void aecfb_rfft(const float *in, float *out, float *work, int stride) {
    (void)in;
    (void)out;
    (void)work;
    (void)stride;
}

void aecfb_rifft(const float *in, float *out, float *work) {
    (void)in;
    (void)out;
    (void)work;
}
