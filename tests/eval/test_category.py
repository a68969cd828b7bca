#!/usr/bin/python3
"""Rating of the double-talk category on synthetic signals whose attenuations
are known by construction (eval/category.py)."""
import os
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "eval"))
import category as cat  # noqa: E402

FS = cat.FS


def comb_noise(n, bands, seed):
    x = cat.comb(np.random.default_rng(seed).standard_normal(n), bands)
    return x / np.sqrt(np.mean(x ** 2))


def gain_db(db):
    return 10 ** (-db / 20)


def scenario(seconds=(4, 6, 4, 4), seed=1):
    """far single talk, double talk, near single talk, far single talk after;
    stationary comb noise as talkers (near in its bands, far in its)."""
    t = np.cumsum((0,) + seconds)
    n = int(t[-1] * FS)
    seg = {k: (float(t[i]), float(t[i + 1])) for i, k in enumerate(cat.SEG_ORDER)}
    idx = np.arange(n) / FS
    far_on = ((idx < seg["dt"][1]) | (idx >= seg["far_after"][0])).astype(float)
    near_on = ((idx >= seg["dt"][0]) & (idx < seg["near_st"][1])).astype(float)
    # 20 ms raised-cosine ramps: a hard switch would spread each talker into
    # the other's bands.
    ramp = np.hanning(322)[1:-1]
    ramp /= ramp.sum()
    far_on = np.convolve(far_on, ramp, "same")
    near_on = np.convolve(near_on, ramp, "same")
    far = comb_noise(n, cat.FAR_BANDS, seed) * 10 ** (-24 / 20) * far_on
    near = comb_noise(n, cat.NEAR_BANDS, seed + 1) * 10 ** (-30 / 20) * near_on
    meta = {k: "%g,%g" % v for k, v in seg.items()}
    meta.update(far_db="-24", near_db="-30")
    return far, near, seg, meta


def in_seg(n, seg, key):
    idx = np.arange(n) / FS
    return (idx >= seg[key][0]) & (idx < seg[key][1])


def highpass_bands(x):
    """A fixed send frequency response: -20 dB below 300 Hz."""
    X = np.fft.rfft(x)
    f = np.fft.rfftfreq(len(x), 1 / FS)
    X[f < 300] *= 0.1
    return np.fft.irfft(X, len(x))


class RatingOnKnownAttenuations(unittest.TestCase):
    def rate(self, att_dt_db=0.0, rx_dt_db=0.0, echo_loss_db=30.0, fixed_response=False, delay=0):
        far, near, seg, meta = scenario()
        n = len(far)
        dt = in_seg(n, seg, "dt")
        near_send = highpass_bands(near) if fixed_response else near.copy()
        near_send[dt] *= gain_db(att_dt_db)
        echo_send = far * gain_db(echo_loss_db)
        send = near_send + echo_send
        played = far.copy()
        played[dt] *= gain_db(rx_dt_db)
        if delay:
            send = np.concatenate([np.zeros(delay), send[:-delay]])
        sc = {"far": far, "nearmic": near, "noise": np.zeros(n)}
        run = {"played": played, "echo": np.zeros(n), "send": send}
        return cat.rate_run(sc, run, meta)

    def test_untouched_loop_rates_no_attenuation(self):
        r = self.rate()
        self.assertLess(abs(r["as_p95"]), 0.05)
        self.assertLess(abs(r["ar_p95"]), 0.01)
        self.assertGreater(r["dt_frames"], 250)

    def test_send_attenuation_in_double_talk_is_measured(self):
        r = self.rate(att_dt_db=5.0)
        # The echo at -54 dBFS lies in the far-end bands only; the near-end
        # bands see the near end alone, so the rating is exact up to the
        # frames at the segment edges.
        self.assertAlmostEqual(r["as_median"], 5.0, delta=0.05)
        self.assertAlmostEqual(r["as_p95"], 5.0, delta=0.05)

    def test_fixed_send_response_is_not_double_talk_loss(self):
        r = self.rate(att_dt_db=2.0, fixed_response=True)
        self.assertAlmostEqual(r["as_median"], 2.0, delta=0.1)
        # The single-talk response shows the fixed 20 dB cut below 300 Hz.
        self.assertLess(r["g_st_db"][0], -15.0)
        self.assertAlmostEqual(r["g_st_db"][-1], 0.0, delta=0.1)

    def test_receive_attenuation_in_double_talk_is_measured(self):
        r = self.rate(rx_dt_db=4.0)
        self.assertAlmostEqual(r["ar_median"], 4.0, delta=0.01)
        self.assertAlmostEqual(r["ar_p95"], 4.0, delta=0.01)

    def test_echo_loss_per_band_is_measured(self):
        r = self.rate(echo_loss_db=31.0)
        for v in r["el_bands"]:
            self.assertAlmostEqual(v, 31.0, delta=0.1)
        self.assertAlmostEqual(r["el_worst"], 31.0, delta=0.1)
        self.assertAlmostEqual(r["el_st_worst"], 31.0, delta=0.1)

    def test_send_delay_is_found_and_removed(self):
        r = self.rate(att_dt_db=5.0, delay=120)
        self.assertEqual(r["send_delay"], 120)
        self.assertAlmostEqual(r["as_median"], 5.0, delta=0.05)

    def test_categories_follow_the_worst_criterion(self):
        r = self.rate(att_dt_db=4.0, echo_loss_db=31.0)
        self.assertEqual(r["types_hands-free"], ("2a", "1", "1"))
        self.assertEqual(r["cat_hands-free"], "2a")
        self.assertEqual(r["cat_TELR"], "2b")


class Ladders(unittest.TestCase):
    def test_limits_are_inclusive(self):
        self.assertEqual(cat.category(3.0, 3.0, 27.0, "hands-free")[0], "1")
        self.assertEqual(cat.category(3.01, 3.0, 27.0, "hands-free")[0], "2a")
        self.assertEqual(cat.category(3.0, 3.01, 27.0, "hands-free")[0], "2a")
        self.assertEqual(cat.category(3.0, 3.0, 26.99, "hands-free")[0], "2a")

    def test_each_criterion_ladder(self):
        self.assertEqual(cat.criterion_type(9.0, cat.LADDERS["hands-free"]["as"], False), "2b")
        self.assertEqual(cat.criterion_type(12.5, cat.LADDERS["hands-free"]["as"], False), "3")
        self.assertEqual(cat.criterion_type(8.0, cat.LADDERS["hands-free"]["ar"], False), "2b")
        self.assertEqual(cat.criterion_type(10.5, cat.LADDERS["hands-free"]["ar"], False), "3")
        self.assertEqual(cat.criterion_type(17.0, cat.LADDERS["hands-free"]["el"], True), "2b")
        self.assertEqual(cat.criterion_type(36.9, cat.LADDERS["TELR"]["el"], True), "2a")
        self.assertEqual(cat.criterion_type(20.0, cat.LADDERS["TELR"]["el"], True), "3")

    def test_missing_value_has_no_category(self):
        self.assertEqual(cat.category(float("nan"), 0.0, 40.0, "TELR")[0], "n/a")


class Combs(unittest.TestCase):
    def test_talkers_do_not_share_bands(self):
        n = 4 * FS
        near = comb_noise(n, cat.NEAR_BANDS, 3)
        far = comb_noise(n, cat.FAR_BANDS, 4)
        leak_far = np.sum(cat.band_frame_powers(far, cat.NEAR_BANDS))
        own = np.sum(cat.band_frame_powers(near, cat.NEAR_BANDS))
        self.assertLess(10 * np.log10(leak_far / own), -60.0)


if __name__ == "__main__":
    unittest.main()
