package tessaroven.pkd.artifactdetector;

import static tessaroven.pkd.artifactdetector.TestSupport.check;

import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;

/** The native methods in a real JVM against the scripted inference library. */
public final class ArtifactDetectorJniTest {
  private static final int W = 64, H = 48;
  // Logit +inf gives probability exactly 1, logit 0 exactly 0.5 (Noise's threshold is 0.2).
  private static final String NOISE = "{\"score\":0.5,\"tag\":\"Noise\",\"tag_id\":9}";
  private static final String TWO =
      "[{\"score\":1.0,\"tag\":\"DonutBlur\",\"tag_id\":5}," + NOISE + "]";
  private static final String RUN = timing("exexecuteWithBtyeArrayJNI execution");
  private static final String RELEASE = timing("release");
  private static final byte[] FRAME = new byte[W * H * 3];  // random: nowhere near one colour
  private static String models;

  public static void main(String[] args) throws Exception {
    new Random(1).nextBytes(FRAME);
    models = TestSupport.models("net.onnx");  // the fake never reads it
    new ArtifactDetector().close();  // loads the library the support library links against
    TestSupport.load();
    nativeMethods();
    convenienceClass();
  }

  private static void nativeMethods() throws Exception {
    ArtifactDetector d = new ArtifactDetector();
    TestSupport.captureLog();
    check(Arrays.asList("", false), Arrays.asList(d.getArtifactInfoJNI(0),
        d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 0)), "results and run before initializeJNI");
    d.releaseJNI(0);
    check(Arrays.asList(0L, RUN, RELEASE), state(d), "field and log before initializeJNI");
    TestSupport.scriptNetwork(5, 9);
    check(true, d.initializeJNI(0, models) && TestSupport.globalsAre(d), "jvm and main_obj set");
    long address = reference(d);
    check(true, address != 0 && d.initializeJNI(0, models), "a second initializeJNI");
    String init = timing("initialization");
    check(Arrays.asList(address, init, init), state(d), "the second reuses the detector");
    check(Arrays.asList(true, TWO), Arrays.asList(d.executeWithBtyeArrayJNI(FRAME, W, H, 90, 1, 0),
        d.getArtifactInfoJNI(0)), "a run and its results");
    check(Arrays.asList(address, RUN, timing("result-extraction1"),
        "TQ Debug: Artifact Info :" + TWO), state(d), "run and results logged");

    // C++ exceptions reach the JVM as Java ones with their text: arguments the image library
    // refuses, then a library that throws.
    check("IllegalArgumentException: OpenCV", thrown(() -> d.executeWithBtyeArrayJNI(FRAME, -1,
        H, 0, 1, 0)), "a negative width");
    TestSupport.failRuns();
    check("RuntimeException: fake", thrown(() -> d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 0)),
        "a library that throws");
    TestSupport.takeLog();

    // Other modes use no stored detector: they run, report and release nothing.
    TestSupport.scriptNetwork();
    check(Arrays.asList(false, ""), Arrays.asList(d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 1),
        d.getArtifactInfoJNI(1)), "run and results in another mode");
    d.releaseJNI(1);
    check(Arrays.asList(address, RUN, RELEASE), state(d), "timing lines in another mode");
    check(TWO, d.getArtifactInfoJNI(0), "another mode neither ran nor released anything");
    // There initializeJNI makes a detector for that call only, but main_obj follows it.
    ArtifactDetector other = new ArtifactDetector();
    check(true, other.initializeJNI(1, models) && reference(other) == 0
        && TestSupport.globalsAre(other), "another mode stores nothing; main_obj follows");

    check(Arrays.asList(true, "[]"), Arrays.asList(d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 0),
        d.getArtifactInfoJNI(0)), "a run finding nothing");
    TestSupport.captureLog();
    d.releaseJNI(0);
    check(Arrays.asList(address, RELEASE), state(d), "releaseJNI leaves the stale address");
  }

  private static void convenienceClass() throws Exception {
    TestSupport.scriptNetwork(9);
    ArtifactDetector d = new ArtifactDetector();
    check(Arrays.asList("", true, "[" + NOISE + "]"), Arrays.asList(d.getResultJson(),
        d.initialize(models) && d.detect(FRAME, W, H), d.getResultJson()), "results, run, results");
    TestSupport.captureLog();
    d.close();
    d.close();  // releases once: a second release would free the detector twice
    check(Arrays.asList(0L, RELEASE), state(d), "one release; close forgets the address");
    for (Runnable call : new Runnable[] {d::getResultJson, () -> d.detect(FRAME, W, H),
        () -> d.initialize(models)}) {
      try {
        call.run();
        check("IllegalStateException", "none", "use after close");
      } catch (IllegalStateException expected) {
      }
    }
  }

  /** The simple class name of what {@code call} throws and the first word of its message. */
  private static String thrown(Runnable call) {
    try {
      call.run();
      return "nothing";
    } catch (RuntimeException e) {
      return e.getClass().getSimpleName() + ": " + String.valueOf(e.getMessage()).split("[( ]")[0];
    }
  }

  private static long reference(ArtifactDetector d) throws ReflectiveOperationException {
    Field field = ArtifactDetector.class.getDeclaredField("artifact_detector_reference");
    field.setAccessible(true);
    return field.getLong(d);
  }

  /** The address the object holds, then the bindings' messages since the last look (ms as N). */
  private static List<Object> state(ArtifactDetector d) throws ReflectiveOperationException {
    String log = TestSupport.takeLog();
    List<Object> out =
        new ArrayList<>(Arrays.asList(log.isEmpty() ? new Object[0] : log.split("\n")));
    out.add(0, reference(d));
    return out;
  }

  private static String timing(String what) {
    return "TQ Debug: Time taken for " + what + ": N ms";
  }
}
