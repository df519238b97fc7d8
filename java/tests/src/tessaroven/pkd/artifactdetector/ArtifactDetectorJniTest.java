package tessaroven.pkd.artifactdetector;

import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * The native methods in a real JVM, against the scripted inference library. Runs every check,
 * prints each failure and exits with 1 if there was any.
 */
public final class ArtifactDetectorJniTest {
  private static final int W = 64;
  private static final int H = 48;
  private static final int OTHER_MODE = 1;
  // Logit +inf gives probability exactly 1, logit 0 exactly 0.5 (Noise's threshold is 0.2).
  private static final String TWO = "[{\"score\":1.0,\"tag\":\"DonutBlur\",\"tag_id\":5},"
      + "{\"score\":0.5,\"tag\":\"Noise\",\"tag_id\":9}]";
  private static final String RUN = timing("exexecuteWithBtyeArrayJNI execution");
  private static final String RELEASE = timing("release");
  private static final byte[] FRAME = new byte[W * H * 3];
  private static String models;
  private static int failures;

  public static void main(String[] args) throws Exception {
    for (int i = 0; i < FRAME.length; ++i) {
      FRAME[i] = (byte) (i * 7 + (i / 97) * 13);  // nowhere near a uniform colour
    }
    // A models directory whose info file names a model the fake "opens" without reading it.
    Path base = Files.createTempDirectory("ad_jvm_test");
    Path dir = Files.createDirectories(base.resolve("artifact_detector"));
    String text = "{\n\"model_type\": \"cpu\",\n\"model_path\": \"" + dir + "/net.onnx\"\n}\n";
    Path info = Files.write(dir.resolve("artifact_detector_cnn.info"),
        text.getBytes(StandardCharsets.UTF_8));
    for (Path p : new Path[] {base, dir, info}) {
      p.toFile().deleteOnExit();  // in the reverse order
    }
    models = base + "/";
    new ArtifactDetector().close();  // loads the library the support library links against
    TestSupport.load();
    nativeMethods();
    convenienceClass();
    if (failures != 0) {
      System.err.println(failures + " check(s) failed");
      System.exit(1);
    }
    System.out.println("ArtifactDetectorJniTest: all checks passed");
  }

  private static void nativeMethods() throws Exception {
    ArtifactDetector d = new ArtifactDetector();
    TestSupport.captureLog();
    check("", d.getArtifactInfoJNI(0), "results before initializeJNI");
    check(false, d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 0), "run before initializeJNI");
    d.releaseJNI(0);
    check(0L, reference(d), "field untouched");
    check(Arrays.asList(RUN, RELEASE), log(), "timing lines before initializeJNI");

    TestSupport.scriptNetwork(5, 9);
    check(true, d.initializeJNI(0, models), "initializeJNI");
    long address = reference(d);
    check(true, address != 0 && TestSupport.globalsAre(d), "field, jvm and main_obj set");
    check(true, d.initializeJNI(0, models), "second initializeJNI");
    check(address, reference(d), "second initializeJNI reuses the detector");
    check(Arrays.asList(timing("initialization"), timing("initialization")), log(), "timings");

    check(true, d.executeWithBtyeArrayJNI(FRAME, W, H, 90, 1, 0), "run");
    check(TWO, d.getArtifactInfoJNI(0), "results of the run");
    check(Arrays.asList(RUN, timing("result-extraction1"), "TQ Debug: Artifact Info :" + TWO),
        log(), "run and results logged");

    // Other modes use no stored detector: they run, report and release nothing.
    TestSupport.scriptNetwork();
    check(false, d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, OTHER_MODE), "run in another mode");
    check("", d.getArtifactInfoJNI(OTHER_MODE), "results in another mode");
    d.releaseJNI(OTHER_MODE);
    check(Arrays.asList(RUN, RELEASE), log(), "timing lines in another mode");
    check(TWO, d.getArtifactInfoJNI(0), "another mode neither ran nor released anything");
    // There initializeJNI makes a detector for that call only, but main_obj follows it.
    ArtifactDetector other = new ArtifactDetector();
    check(true, other.initializeJNI(OTHER_MODE, models), "initializeJNI in another mode");
    check(0L, reference(other), "another mode stores nothing");
    check(true, TestSupport.globalsAre(other), "main_obj follows the latest initializeJNI");

    check(true, d.executeWithBtyeArrayJNI(FRAME, W, H, 0, 1, 0), "run finding nothing");
    check("[]", d.getArtifactInfoJNI(0), "empty results");
    TestSupport.captureLog();
    d.releaseJNI(0);
    check(address, reference(d), "releaseJNI leaves the stale address");
    check(Arrays.asList(RELEASE), log(), "release timing");
  }

  private static void convenienceClass() throws Exception {
    TestSupport.scriptNetwork(9);
    ArtifactDetector d = new ArtifactDetector();
    check("", d.getResultJson(), "results before initialize");
    check(true, d.initialize(models) && d.detect(FRAME, W, H), "initialize and detect");
    check("[{\"score\":0.5,\"tag\":\"Noise\",\"tag_id\":9}]", d.getResultJson(), "results");
    TestSupport.captureLog();
    d.close();
    d.close();  // releases once: a second release would free the detector twice
    check(Arrays.asList(RELEASE), log(), "one release");
    check(0L, reference(d), "close forgets the address");
    for (Runnable call : new Runnable[] {d::getResultJson, () -> d.detect(FRAME, W, H),
        () -> d.initialize(models)}) {
      try {
        call.run();
        check("IllegalStateException", "none", "use after close");
      } catch (IllegalStateException expected) {
      }
    }
  }

  private static void check(Object expected, Object actual, String what) {
    if (!expected.equals(actual)) {
      ++failures;
      System.err.println("FAILED " + what + ": expected <" + expected + ">, was <" + actual + ">");
    }
  }

  /** The bindings' messages since the last captureLog or log call. */
  private static List<String> log() {
    return Arrays.asList(TestSupport.takeLog());
  }

  /** A timing line as the log capture gives it, the milliseconds replaced by N. */
  private static String timing(String what) {
    return "TQ Debug: Time taken for " + what + ": N ms";
  }

  private static long reference(ArtifactDetector d) throws ReflectiveOperationException {
    Field field = ArtifactDetector.class.getDeclaredField("artifact_detector_reference");
    field.setAccessible(true);
    return field.getLong(d);
  }
}
