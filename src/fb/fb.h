// Filter banks and transforms.
#ifndef KVAEC_FB_H
#define KVAEC_FB_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// Complex data is interleaved (re, im) float. Forward = e^(-j...), no scaling.
KVAEC_API void aec_fft4(float *x);                       // 4 complex, in place
KVAEC_API void aec_fft16(float *x, float *work);         // 16 complex, work >= 40 floats
KVAEC_API void aec_fft80(float *x, float *work);         // 80 complex, work >= 200 floats
KVAEC_API void aecfb_fft8(float *x, float *work);        // 8 complex, work 32 floats
KVAEC_API void aecfb_ifft8(float *x, float *work);       // inverse, unscaled
KVAEC_API void aecfb_fft5a(const float *in, float *work);   // 40 complex in; 5x8 matrix to work[0..79], temps work[80..111]
KVAEC_API void aecfb_ifft5a(const float *in, float *work);  // inverse five-point first stage
KVAEC_API void aecfb_fft40(float *x, float *work);       // 40 complex, work >= 112 floats
KVAEC_API void aecfb_ifft40(float *x, float *work);      // inverse, unscaled
// 80 real samples -> bins 0..40 at out + k * stride (complex elements); work >= 192 floats.
KVAEC_API void aecfb_rfft(const float *in, float *out, float *work, int stride);
// 41 bins read at a stride of 4 complex -> 80 real samples (40 x the normalised inverse); work >= 112.
KVAEC_API void aecfb_rifft(const float *in, float *out, float *work);

// Constant tables.
extern const float aecfb_afTwid40[32][2];      // e^(-j 2 pi u q / 40), rows u = 1..4, q = 0..7
extern const float aecfb_afTwid80[64][2];      // e^(-j 2 pi u q / 80), rows u = 1..4, q = 0..15
extern const float aecfb_afSplit80[40][4];     // (Ar, Ai, Br, Bi), theta = 2 pi k / 80
extern const float aecfb_afSplit160[80][4];    // theta = 2 pi k / 160
extern const float aecfb_afSndAnaWin[240];     // send analysis window, index 0 = oldest sample
extern const float aecfb_afSndSynWin[240];     // send synthesis window
extern KVAEC_API const float aecfb_afRcvAnaWin[240];     // receive analysis window
extern KVAEC_API const float aecfb_afRcvSynWin[240];     // receive synthesis window
extern const float aecfb_afRefAnaWin[480];     // reference analysis window

// Send bank: analysis into acSndSb (copied to acErrAdf, acErrAds); synthesis from acErrAdf.
KVAEC_API void aec_fb_snd_analysis(AEC_tDb *db, AEC_tSc *sc, const float *sin);
KVAEC_API void aec_fb_snd_synthesis(AEC_tDb *db, AEC_tSc *sc, float *sin);
// Receive bank: analysis into acRcvSb; synthesis from acRcvSb.
KVAEC_API void aec_fb_rcv_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin);
KVAEC_API void aec_fb_rcv_synthesis(AEC_tDb *db, AEC_tSc *sc, float *rin);
// Reference analysis of the outgoing receive frame into positions 0..3 of the history.
KVAEC_API void aec_fb_ref_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin);

#ifdef __cplusplus
}
#endif

#endif
