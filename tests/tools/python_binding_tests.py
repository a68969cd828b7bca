"""Tests of the Python binding (python/kvaec) against the built library."""
import os

import numpy as np
import pytest

import kvaec


def noise(seed, n, amp=0.05):
    return (amp * np.random.default_rng(seed).standard_normal(n)).astype(np.float32)


def test_default_config_matches_library_defaults():
    c = kvaec.Config()
    assert c.as_dict() == {"fErlInitDb": -10.0, "fNlpAttMaxDb": 45.0, "fNlpAttMinDb": 30.0,
                           "fDtdMarginDb": 4.5, "fLevelFloorDb": -95.0, "fNrLevelDb": 0.0,
                           "fRinLevelRefDb": 100.0, "iProfile": 0}


def test_unknown_config_field_is_refused():
    with pytest.raises(TypeError, match="unknown configuration field"):
        kvaec.Config(fErlInit=3)


def test_config_and_mode_reach_the_library():
    cfg = kvaec.Config(fNrLevelDb=0.5, fDtdMarginDb=6.0, iProfile=2)
    with kvaec.Canceller(cfg, mode=kvaec.MODE_NO_NR | kvaec.MODE_FREEZE | 0x1) as c:
        assert c.active_config() == cfg
        assert c.state()["mode"] == kvaec.MODE_NO_NR | kvaec.MODE_FREEZE  # command bits never stored
        c.load_config(kvaec.Config(fNlpAttMaxDb=40.0))
        assert c.active_config().fNlpAttMaxDb == 40.0
        assert c.active_config().iProfile == 0
        c.mode = kvaec.MODE_BYPASS
        assert c.state()["mode"] == kvaec.MODE_BYPASS


def test_second_live_canceller_is_refused_until_the_first_is_closed():
    first = kvaec.Canceller()
    with pytest.raises(kvaec.CancellerBusyError, match="single global canceller"):
        kvaec.Canceller()
    with pytest.raises(kvaec.CancellerBusyError):
        kvaec.process(noise(1, 1600), noise(2, 1600))
    first.close()
    with kvaec.Canceller() as second:
        assert second.frames == 0
    with pytest.raises(RuntimeError, match="closed"):
        first.process_frame(np.zeros(160), np.zeros(160))


def test_process_estimates_delay_and_keeps_lengths():
    far = noise(3, 48000)
    mic = np.zeros(40000, np.float32)
    mic[800:] = 0.5 * far[: 40000 - 800]
    r = kvaec.process(far, mic)
    assert r["delay"] == 800
    assert r["out"].shape == (40000,) and r["out"].dtype == np.float32
    assert r["played"].shape == (48000,)
    assert np.all(np.isfinite(r["out"]))


def test_process_given_delay_is_used():
    far = noise(4, 16000)
    r = kvaec.process(far, far, delay=12.5)
    assert r["delay"] == 200


def test_process_refuses_multichannel_arrays():
    with pytest.raises(ValueError, match="one-dimensional"):
        kvaec.process(np.zeros((100, 2)), np.zeros(100))


def test_estimate_delay_on_silence_is_none():
    assert kvaec.estimate_delay(np.zeros(16000), noise(5, 16000)) is None


def test_nonfinite_input_resets_and_processing_goes_on():
    with kvaec.Canceller(mode=kvaec.MODE_NO_NR) as c:
        sin = noise(6, 160)
        sin[10] = np.nan
        for _ in range(3):
            c.process_frame(noise(7, 160), sin if _ == 1 else noise(8, 160))
        # Either the output or the self-test shows the damage at once or at
        # the latest at the once-a-second check.
        for _ in range(100):
            s, p = c.process_frame(noise(7, 160), noise(8, 160))
            assert np.all(np.isfinite(s)) and np.all(np.isfinite(p))
        assert len(c.resets) >= 1
        assert c.state()["mode"] == kvaec.MODE_NO_NR
        assert c.bist() == 0


def test_simulate_echo_is_made_from_what_was_played():
    far = noise(9, 8000)
    h = np.zeros(50)
    h[49] = 0.5
    r = kvaec.simulate(far, echo_path=h, latency_frames=2, equalizers=False)
    lag = 320 + 49
    want = np.zeros_like(r["echo"])
    want[lag:] = (0.5 * r["played"][:-lag].astype(np.float64)).astype(np.float32)
    np.testing.assert_array_equal(r["echo"], want)
    np.testing.assert_array_equal(r["mic"], r["echo"])  # no near end
    assert r["double_talk"].shape == (50,)
    assert np.abs(r["played"]).sum() > 1.0


def _header_macro(name):
    import re
    here = os.path.dirname(os.path.abspath(__file__))
    with open(os.path.join(here, "..", "..", "include", "kvaec.h")) as f:
        return int(re.search(r"#define %s (\d+)" % name, f.read()).group(1))


def test_delays_and_least_echo_delay_are_the_headers():
    assert kvaec.RIN_DELAY == _header_macro("KVAEC_RCV_DELAY_SAMPLES")
    assert kvaec.SIN_DELAY == _header_macro("KVAEC_SND_DELAY_SAMPLES")
    assert kvaec.echo_min_delay() == _header_macro("KVAEC_ECHO_MIN_DELAY")


@pytest.mark.parametrize("bulk", [0, 800])
def test_process_aligns_by_the_library_rule(bulk):
    # The echo reaches the canceller the least echo delay plus the 2 ms
    # margin after the receive output (which trails the far end by RIN_DELAY).
    far = noise(11, 16000)
    mic = np.zeros_like(far)
    mic[bulk:] = 0.5 * far[:len(far) - bulk]
    r = kvaec.process(far, mic, mode=kvaec.MODE_BYPASS, delay=bulk / 16.0)
    assert r["shift"] == kvaec.align_shift(bulk, 32)
    assert bulk + r["shift"] - kvaec.RIN_DELAY == kvaec.echo_min_delay() + 32
    # Bypass: the send output is the microphone through the filter banks, so
    # after the realignment it lines up with the microphone.
    k = int(np.argmax(np.correlate(r["out"][2000:14000], mic[2000:14000], "full"))) - (12000 - 1)
    assert k == 0


def test_simulate_warns_when_the_echo_comes_sooner_than_the_canceller_needs():
    far = noise(12, 1600)
    h = np.zeros(33)
    h[32] = 0.5
    with pytest.warns(RuntimeWarning, match="after the receive output"):
        kvaec.simulate(far, echo_path=h, latency_frames=1)
    import warnings
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        kvaec.simulate(far, echo_path=h)  # default: two frames, 352 samples
