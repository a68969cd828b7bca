// Full-band weights of the strip energies: the full-band energy of a frame is
// the sum over the 30 strips of e[s] * aecnrg_aCorrTab[s]. The weights fall
// steeply over the first strips and flatten towards 0.097 in the paired strips.
#include "det.h"

const float aecnrg_aCorrTab[AEC_NSTRIPS] = {
    10.008554f,  // 0
    7.2276006f,  // 1
    3.9613743f,  // 2
    2.2805421f,  // 3
    1.4477288f,  // 4
    0.99831605f,  // 5
    0.73385477f,  // 6
    0.56677926f,  // 7
    0.45510691f,  // 8
    0.37703273f,  // 9
    0.32042724f,  // 10
    0.27814454f,  // 11
    0.24576724f,  // 12
    0.22045170f,  // 13
    0.20030306f,  // 14
    0.18402074f,  // 15
    0.17068873f,  // 16
    0.15964730f,  // 17
    0.15041177f,  // 18
    0.14261982f,  // 19
    0.13032958f,  // 20
    0.12124059f,  // 21
    0.11440333f,  // 22
    0.10920759f,  // 23
    0.10524927f,  // 24
    0.10225502f,  // 25
    0.10003787f,  // 26
    0.098470300f,  // 27
    0.097467825f,  // 28
    0.096978821f,  // 29
};
