"""Tests of the Python binding (python/kvaec) against the built library."""
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


def test_preset_selects_the_library_record_everywhere():
    fd = kvaec.preset_config("full-duplex")
    assert fd != kvaec.Config()
    assert kvaec.preset_config("default") == kvaec.Config()
    with kvaec.Canceller(preset="full-duplex") as c:
        assert c.active_config() == fd
    with kvaec.Canceller() as c:  # nothing said: the full-duplex preset
        assert c.active_config() == fd
    with kvaec.Canceller(preset="default") as c:
        assert c.active_config() == kvaec.Config()
    with pytest.raises(ValueError, match="unknown preset"):
        kvaec.Canceller(preset="loud")
    with pytest.raises(ValueError, match="either config or preset"):
        kvaec.Canceller(kvaec.Config(), preset="default")
    # The hosts' offline and closed-loop calls load the same record as the
    # preset's fields given as a Config (bit-identical outputs), and another
    # output than the default preset.
    far, near = noise(11, 16000), noise(12, 16000, 0.02)
    near[:8000] = 0
    a = kvaec.simulate(far, near, preset="full-duplex")["send"]
    assert np.array_equal(a, kvaec.simulate(far, near, config=fd)["send"])
    assert not np.array_equal(a, kvaec.simulate(far, near, preset="default")["send"])
    mic = np.concatenate([np.zeros(800, np.float32), 0.5 * far[:-800]]) + near
    assert np.array_equal(a, kvaec.simulate(far, near)["send"])
    b = kvaec.process(far, mic, preset="full-duplex", delay=50)["out"]
    assert np.array_equal(b, kvaec.process(far, mic, config=fd, delay=50)["out"])
    assert np.array_equal(b, kvaec.process(far, mic, delay=50)["out"])
