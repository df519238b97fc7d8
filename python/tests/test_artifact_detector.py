"""The Python module against the library: same picture, same answer, whatever way it comes in."""
import os
import sys
import threading

import numpy as np
import pytest

import artifact_detector as ad

SAMPLES = os.environ.get("AD_TEST_SAMPLES", "samples")


@pytest.fixture(scope="module")
def detector():
    return ad.Detector()


def picture(height=240, width=320):
    """A seeded scene with gradients and edges, far from one colour."""
    rng = np.random.default_rng(7)
    y, x = np.mgrid[0:height, 0:width]
    base = np.stack([x * 255 // width, y * 255 // height, (x + y) % 256], axis=-1)
    return (base + rng.integers(0, 40, base.shape)).clip(0, 255).astype(np.uint8)


def write_ppm(path, rgb):
    path.write_bytes(b"P6\n%d %d\n255\n" % (rgb.shape[1], rgb.shape[0]) + rgb.tobytes())
    return path


def answer(result):
    return result.status, [(a.tag, a.id, a.probability) for a in result.artifacts], result.probabilities


BGR = picture()
NV21 = np.random.default_rng(3).integers(0, 256, (240 * 3 // 2, 320), dtype=np.uint8)


@pytest.mark.parametrize("how, call", [
    ("rgb order", lambda d, tmp: d.detect(BGR[..., ::-1].copy(), order="rgb")),
    ("rgb order, a view with reversed channels", lambda d, tmp: d.detect(BGR[..., ::-1], order="rgb")),
    ("turned back by 90", lambda d, tmp: d.detect(np.rot90(BGR, 1).copy(), rotation=90)),
    ("a crop of a larger image", lambda d, tmp: d.detect(np.pad(BGR, ((5, 6), (7, 8), (0, 0)))[5:-6, 7:-8])),
    ("an image file", lambda d, tmp: d.detect_file(write_ppm(tmp / "p.ppm", BGR[..., ::-1].copy()))),
])
def test_every_way_in_gives_the_same_answer(detector, tmp_path, how, call):
    expected = answer(detector.detect(BGR))
    assert expected[0] == "analysed"
    assert answer(call(detector, tmp_path)) == expected


def test_nv21_from_bytes_or_arrays(detector):
    expected = answer(detector.detect_nv21(NV21.tobytes(), 320, 240, 90))
    assert expected[0] == "analysed"
    assert answer(detector.detect_nv21(NV21, 320, 240, 90)) == expected
    assert answer(detector.detect_nv21(bytearray(NV21.tobytes()), 320, 240, 90)) == expected


@pytest.mark.parametrize("call, error, text", [
    (lambda d: d.detect(BGR.astype(np.float32)), TypeError, "uint8"),
    (lambda d: d.detect(BGR[..., 0]), ValueError, "shape"),
    (lambda d: d.detect(BGR, order="yuv"), ValueError, "order"),
    (lambda d: d.detect_nv21(NV21.tobytes()[:-1], 320, 240), ValueError, "needs 115200 bytes"),
    (lambda d: d.detect_nv21(NV21.tobytes(), 319, 240), ValueError, ""),
    (lambda d: d.detect_nv21(np.zeros(1000, np.uint16), 20, 20), TypeError, "bytes"),
    (lambda d: d.detect_file("/no/such/photo.jpg"), FileNotFoundError, "/no/such/photo.jpg"),
    (lambda d: d.detect_file(__file__), ValueError, "not a readable image"),
    (lambda d: d.set_threshold("Glare", 0.5), ValueError, "Glare"),
    (lambda d: d.set_threshold(12, 0.5), ValueError, "1 to 11"),
    (lambda d: ad.Detector("/no/such/models"), RuntimeError, ""),
])
def test_refusals(detector, call, error, text):
    with pytest.raises(error, match=text):
        call(detector)


def test_results_and_thresholds(detector):
    assert ad.__version__ == os.environ.get("AD_TEST_VERSION", ad.__version__)
    assert detector.thresholds == ad.Detector.default_thresholds()
    result = detector.detect_file(os.path.join(SAMPLES, "astronaut_flare.jpg"))
    assert list(result.probabilities) == list(ad.CLASS_NAMES)
    assert result.artifacts, "the flare sample shows a flare"
    for a in result.artifacts:
        assert ad.CLASS_NAMES[a.id - 1] == a.tag and result.probabilities[a.tag] == a.probability
    try:
        detector.set_thresholds({tag: 2.0 for tag in ad.CLASS_NAMES})
        assert detector.detect_file(os.path.join(SAMPLES, "astronaut_flare.jpg")).artifacts == []
        detector.set_threshold(result.artifacts[0].id, 0.0)
        detector.set_threshold("Noise", 0.6)
        assert detector.thresholds[result.artifacts[0].tag] == 0.0
        assert detector.thresholds["Noise"] == 0.6
    finally:
        detector.set_thresholds(ad.Detector.default_thresholds())
    uniform = detector.detect(np.full((64, 64, 3), 90, np.uint8))
    assert (uniform.status, uniform.artifacts) == ("uniform frame", [])
    assert set(uniform.probabilities.values()) == {0.0}


def test_a_run_lets_other_threads_go_on(detector):
    # Python threads take turns only when the holder lets the GIL go: with the switch
    # interval this long, the main thread runs during the detection only if the run releases it.
    big = np.tile(BGR, (8, 8, 1))
    started, finished = threading.Event(), threading.Event()

    def work():
        started.set()
        detector.detect(big)
        finished.set()

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1000)
    try:
        worker = threading.Thread(target=work)
        worker.start()
        started.wait()
        ran_during_the_run = not finished.is_set()
        worker.join()
    finally:
        sys.setswitchinterval(interval)
    assert ran_during_the_run
