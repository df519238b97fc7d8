package tessaroven.pkd.artifactdetector;

import static tessaroven.pkd.artifactdetector.TestSupport.check;

import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.Random;

/**
 * Detector in a real JVM over the reference inference library and a real network: direct
 * ByteBuffer planes with padded rows and pixel stride 2 give the results of the same frame as
 * tight NV21; statuses and reasons cross; dropped detectors are freed. Which status each frame
 * earns is the native test's.
 */
public final class DetectorJvmTest {
  private static final int W = 96;
  private static final int H = 64;
  private static final int PAD = 40;

  public static void main(String[] args) throws Exception {
    String models = TestSupport.models(System.getProperty("ad.test.model"));
    byte[] nv21 = new byte[W * H * 3 / 2];
    new Random(7).nextBytes(nv21);
    try (Detector detector = Detector.open(models, true, Detector.LOG_SILENT)) {
      check(true, detector.isReady(), "ready: " + detector.error());
      check(Arrays.asList(64, 48), Arrays.asList(detector.inputWidth(), detector.inputHeight()),
          "input size");
      planesEqualTightNv21(detector, nv21);
      statuses(detector, nv21);
      check(0.52f, detector.threshold(6), "Blur's built-in threshold");
      detector.setThreshold(6, 0.25f);
      check(0.25f, detector.threshold(6), "a threshold set in memory");
    }
    try (Detector missing = Detector.open(models + "missing")) {
      check(Detector.Status.NOT_READY, missing.detectNv21(nv21, W, H, 0).status, "missing folder");
    }
    safetyNet(models);
    check(true, Detector.version().matches("[0-9]+\\.[0-9]+\\.[0-9]+"), "version");
    System.out.println("DetectorJvmTest passed");
  }

  private static void planesEqualTightNv21(Detector detector, byte[] nv21) {
    int stride = W + PAD;
    ByteBuffer y = ByteBuffer.allocateDirect(stride * H);
    ByteBuffer vu = ByteBuffer.allocateDirect(stride * H / 2);
    for (int r = 0; r < H; r++) {
      for (int c = 0; c < W; c++) {
        y.put(r * stride + c, nv21[r * W + c]);
        if (r < H / 2) {
          vu.put(r * stride + c, nv21[W * H + r * W + c]);
        }
      }
    }
    ByteBuffer v = vu.duplicate();
    vu.position(1);
    ByteBuffer u = vu.slice();
    // Rotation and every plane's position, stride and pixel stride cross as given.
    Detector.Result packed = detector.detectNv21(nv21, W, H, 90);
    Detector.Result planes = detector.detectYuv420888(y, stride, u, v, stride, 2, W, H, 90);
    check(Detector.Status.ANALYSED, planes.status, "planes: " + planes.reason);
    check(Arrays.toString(packed.probabilities()) + packed.artifacts,
        Arrays.toString(planes.probabilities()) + planes.artifacts, "planes against tight NV21");
    check(true, planes.artifacts.size() > 0, "some artifact accepted: empty lists prove nothing");

    // RGBA rows padded by 12 bytes against the same pixels tightly packed.
    byte[] tight = new byte[W * H * 4];
    byte[] padded = new byte[(W * 4 + 12) * H];
    new Random(3).nextBytes(tight);
    for (int r = 0; r < H; r++) {
      System.arraycopy(tight, r * W * 4, padded, r * (W * 4 + 12), W * 4);
    }
    Detector.Result expected = detector.detectRgba(tight, W, H, 0, 270);
    Detector.Result strided = detector.detectRgba(padded, W, H, W * 4 + 12, 270);
    check(Detector.Status.ANALYSED + Arrays.toString(expected.probabilities()),
        strided.status + Arrays.toString(strided.probabilities()), "RGBA with a row stride");
  }

  private static void statuses(Detector detector, byte[] nv21) {
    byte[] grey = new byte[nv21.length];
    Arrays.fill(grey, (byte) 128);
    ByteBuffer plane = ByteBuffer.allocateDirect(W * H);
    Object[][] cases = {
        {detector.detectNv21(grey, W, H, 90), Detector.Status.UNIFORM_FRAME,
            "the frame is one colour"},
        {detector.detectYuv420888(plane, W, plane, null, W, 2, W, H, 0),
            Detector.Status.INVALID_INPUT, "plane 2 is null"},
    };
    for (Object[] c : cases) {
      Detector.Result r = (Detector.Result) c[0];
      check(Arrays.asList(c[1], c[2], 0), Arrays.asList(r.status, r.reason, r.artifacts.size()),
          "status");
    }
    try {
      detector.detectNv21(new byte[10], W, H, 0);
      check("IllegalArgumentException", "none", "a short array");
    } catch (IllegalArgumentException expected) {
      // refused before native code reads it
    }
  }

  /** Detectors dropped without close() are freed by the reference queue, all of them. */
  private static void safetyNet(String models) throws InterruptedException {
    Detector.freeUnreachable();
    int before = Detector.liveCount();
    for (int i = 0; i < 20; i++) {
      Detector.open(models);
    }
    check(before + 20, Detector.liveCount(), "dropped detectors still held");
    for (int i = 0; i < 100 && Detector.liveCount() > before; i++) {
      System.gc();
      Thread.sleep(20);
      Detector.freeUnreachable();
    }
    check(before, Detector.liveCount(), "dropped detectors freed");
  }
}
