// Fixed numbers of the PipeWire echo-cancel plugin that its tests also use.
#ifndef KVAEC_PIPEWIRE_AEC_H
#define KVAEC_PIPEWIRE_AEC_H

// Quality of the SpeexDSP resamplers (SPEEX_RESAMPLER_QUALITY_DESKTOP): at
// 48 kHz each direction delays by 2.5 ms with a passband to about 7.5 kHz.
#define KVAEC_PW_RESAMPLER_QUALITY 5

// Bulk-delay estimation: analysed far-end activity, search range and the
// margin kept behind the alignment rule's least delay.
#define KVAEC_PW_ESTIMATE_SECONDS 1.0
#define KVAEC_PW_MAX_DELAY_MS 500
#define KVAEC_PW_DELAY_MARGIN_MS 2
// Frames (10 ms) between the end of one analysed stretch and the start of
// the next: the estimate is repeated so that a moved echo path is followed.
#define KVAEC_PW_REESTIMATE_FRAMES 1000
// An estimate counts when its correlation peak stands this far above the
// mean (the command-line tool warns below the same value).
#define KVAEC_PW_MIN_PEAK_TO_MEAN 8.0

// The message a second instance logs and that its init fails with.
#define KVAEC_PW_ONE_INSTANCE_MSG "libkvaec supports one echo canceller per process"

#endif
