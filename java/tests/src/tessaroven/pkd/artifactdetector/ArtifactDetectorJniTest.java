package tessaroven.pkd.artifactdetector;

import java.io.IOException;
import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * The native methods in a real JVM, against the scripted inference library. Runs every case,
 * prints each failure and exits with 1 if there was any.
 */
public final class ArtifactDetectorJniTest {
  private static final int WIDTH = 64;
  private static final int HEIGHT = 48;
  private static final int INPUT_SIZE = 32;
  private static final int OTHER_MODE = 1;

  private static final int DONUT_BLUR = 5;
  private static final int NOISE = 9;
  // Logit +inf gives probability exactly 1, logit 0 exactly 0.5 (Noise's threshold is 0.2).
  private static final String TWO_RECORDS =
      "[{\"score\":1.0,\"tag\":\"DonutBlur\",\"tag_id\":5},"
          + "{\"score\":0.5,\"tag\":\"Noise\",\"tag_id\":9}]";

  private static final Pattern INFO_HEADER =
      Pattern.compile("\\[\\d\\d:\\d\\d:\\d\\d\\] artifact_detector_jni\\.cpp:\\d+: (.*)\n",
          Pattern.DOTALL);

  private static final List<String> failures = new ArrayList<>();
  private static String currentCase = "";
  private static Path models;

  private ArtifactDetectorJniTest() {}

  public static void main(String[] args) throws Exception {
    models = makeModels();
    try {
      // The first detector loads the library, which the support library links against.
      new ArtifactDetector().close();
      TestSupport.load();

      run("native methods before initializeJNI", ArtifactDetectorJniTest::beforeInitialize);
      run("native methods through a whole life cycle", ArtifactDetectorJniTest::lifeCycle);
      run("modes other than 0", ArtifactDetectorJniTest::otherModes);
      run("safe surface", ArtifactDetectorJniTest::safeSurface);
    } finally {
      deleteTree(models);
    }
    if (!failures.isEmpty()) {
      System.err.println(failures.size() + " check(s) failed");
      System.exit(1);
    }
    System.out.println("ArtifactDetectorJniTest: all checks passed");
  }

  // ---- cases ------------------------------------------------------------------------------

  private static void beforeInitialize() throws Exception {
    ArtifactDetector d = new ArtifactDetector();
    TestSupport.captureLog();
    expectEquals("", d.getArtifactInfoJNI(0), "results without a detector");
    expectEquals("", d.getArtifactInfoJNI(OTHER_MODE), "results in another mode");
    expect(!d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 0, 1, 0), "run without a detector");
    expect(!d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 0, 1, OTHER_MODE), "run in mode 1");
    d.releaseJNI(0);
    expectEquals(0L, reference(d), "field untouched");
    String execution = "exexecuteWithBtyeArrayJNI execution";
    expectTimings(infoMessages(), execution, execution, "release");
  }

  private static void lifeCycle() throws Exception {
    script(DONUT_BLUR, NOISE);
    ArtifactDetector d = new ArtifactDetector();
    TestSupport.captureLog();
    expect(d.initializeJNI(0, modelsPath()), "initializeJNI");
    long address = reference(d);
    expect(address != 0, "detector address stored in the field");
    expect(TestSupport.jvmIsThisVm(), "jvm global");
    expect(TestSupport.mainObjectIs(d), "main_obj global");
    expectTimings(infoMessages(), "initialization");

    expect(d.initializeJNI(0, modelsPath()), "second initializeJNI");
    expectEquals(address, reference(d), "second initializeJNI reuses the detector");
    expectEquals("[]", d.getArtifactInfoJNI(0), "results before any run");

    TestSupport.captureLog();
    expect(d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 90, 1, 0), "run");
    expectEquals(TWO_RECORDS, d.getArtifactInfoJNI(0), "results of the run");
    List<String> info = infoMessages();
    expect(info.contains("TQ Debug: Artifact Info :" + TWO_RECORDS), "JSON logged: " + info);
    expect(matchesTiming(info, "result-extraction1"), "extraction timing logged: " + info);
    expectEquals(TWO_RECORDS, d.getArtifactInfoJNI(0), "results read twice");

    expect(!d.executeWithBtyeArrayJNI(uniformFrame(), WIDTH, HEIGHT, 0, 1, 0), "uniform frame");
    expectEquals(TWO_RECORDS, d.getArtifactInfoJNI(0), "a failed run keeps the results");

    script();
    expect(d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 0, 1, 0), "run finding nothing");
    expectEquals("[]", d.getArtifactInfoJNI(0), "empty results");

    TestSupport.captureLog();
    d.releaseJNI(0);
    expectEquals(address, reference(d), "releaseJNI leaves the stale address");
    expectTimings(infoMessages(), "release");
  }

  private static void otherModes() throws Exception {
    script(DONUT_BLUR, NOISE);
    ArtifactDetector d = new ArtifactDetector();
    expect(d.initializeJNI(0, modelsPath()), "initializeJNI");
    expect(d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 0, 1, 0), "run");
    long address = reference(d);

    // A detector for one call only: not stored, but it becomes main_obj's call.
    ArtifactDetector other = new ArtifactDetector();
    expect(other.initializeJNI(OTHER_MODE, modelsPath()), "initializeJNI in mode 1");
    expectEquals(0L, reference(other), "mode 1 stores nothing");
    expect(TestSupport.mainObjectIs(other), "main_obj follows the latest initializeJNI");

    script();
    expect(!d.executeWithBtyeArrayJNI(frame(), WIDTH, HEIGHT, 0, 1, OTHER_MODE), "run in mode 1");
    expectEquals(TWO_RECORDS, d.getArtifactInfoJNI(0), "mode 1 ran nothing");
    expectEquals("", d.getArtifactInfoJNI(OTHER_MODE), "results in mode 1");
    d.releaseJNI(OTHER_MODE);
    expectEquals(TWO_RECORDS, d.getArtifactInfoJNI(0), "releaseJNI in mode 1 releases nothing");
    expectEquals(address, reference(d), "field unchanged");
    d.close();
  }

  private static void safeSurface() throws Exception {
    script(NOISE);
    ArtifactDetector d = new ArtifactDetector();
    expectEquals("", d.getResultJson(), "results before initialize");
    expect(d.initialize(modelsPath()), "initialize");
    expect(d.detect(frame(), WIDTH, HEIGHT), "detect");
    expectEquals("[{\"score\":0.5,\"tag\":\"Noise\",\"tag_id\":9}]", d.getResultJson(), "results");
    expectThrows(IllegalArgumentException.class, () -> d.detect(new byte[WIDTH * HEIGHT * 3 - 1],
        WIDTH, HEIGHT), "short frame");
    expectThrows(IllegalArgumentException.class, () -> d.detect(null, WIDTH, HEIGHT), "null frame");
    expectThrows(IllegalArgumentException.class, () -> d.detect(frame(), 0, HEIGHT), "zero width");
    expectThrows(IllegalArgumentException.class,
        () -> d.detect(frame(), Integer.MAX_VALUE, Integer.MAX_VALUE), "overflowing size");
    expectThrows(IllegalArgumentException.class, () -> d.initialize(null), "null models path");

    d.close();
    d.close();
    expectEquals(0L, reference(d), "close forgets the address");
    expectThrows(IllegalStateException.class, d::getResultJson, "results after close");
    expectThrows(IllegalStateException.class, () -> d.detect(frame(), WIDTH, HEIGHT),
        "detect after close");
    expectThrows(IllegalStateException.class, () -> d.initialize(modelsPath()),
        "initialize after close");
  }

  // ---- helpers ----------------------------------------------------------------------------

  private interface Body {
    void run() throws Exception;
  }

  private static void run(String name, Body body) {
    currentCase = name;
    try {
      body.run();
    } catch (Throwable t) {
      fail("unexpected " + t);
      t.printStackTrace();
    }
  }

  private static void fail(String message) {
    String text = currentCase + ": " + message;
    failures.add(text);
    System.err.println("FAILED " + text);
  }

  private static void expect(boolean condition, String what) {
    if (!condition) {
      fail(what);
    }
  }

  private static void expectEquals(Object expected, Object actual, String what) {
    if (!expected.equals(actual)) {
      fail(what + ": expected <" + expected + "> but was <" + actual + ">");
    }
  }

  private static void expectThrows(Class<? extends Throwable> type, Body body, String what) {
    try {
      body.run();
      fail(what + ": no " + type.getSimpleName());
    } catch (Throwable t) {
      if (!type.isInstance(t)) {
        fail(what + ": expected " + type.getSimpleName() + " but got " + t);
      }
    }
  }

  /** The LogMessage texts captured since the last captureLog/infoMessages, headers removed. */
  private static List<String> infoMessages() {
    List<String> out = new ArrayList<>();
    for (String line : TestSupport.takeLog()) {
      String[] parts = line.split("\t", 3);
      if (parts[0].equals("TQR_ARTIFACT_DET") && parts[1].equals("4")) {
        Matcher m = INFO_HEADER.matcher(parts[2]);
        if (m.matches()) {
          out.add(m.group(1));
        }
      }
    }
    return out;
  }

  private static String timingPattern(String what) {
    return "TQ Debug: Time taken for " + Pattern.quote(what) + ": \\d+ ms";
  }

  private static boolean matchesTiming(List<String> messages, String what) {
    return messages.stream().anyMatch(m -> m.matches(timingPattern(what)));
  }

  /** The timing lines among `messages` name exactly `whats`, in that order. */
  private static void expectTimings(List<String> messages, String... whats) {
    List<String> timings = new ArrayList<>();
    for (String m : messages) {
      if (m.startsWith("TQ Debug: Time taken for ")) {
        timings.add(m);
      }
    }
    boolean ok = timings.size() == whats.length;
    for (int i = 0; ok && i < whats.length; ++i) {
      ok = timings.get(i).matches(timingPattern(whats[i]));
    }
    expect(ok, "timing lines " + timings);
  }

  /** Scripts the fake so that exactly the given artifact ids are found. */
  private static void script(int... ids) {
    float[] logits = new float[12];
    java.util.Arrays.fill(logits, Float.NEGATIVE_INFINITY);
    for (int id : ids) {
      logits[id] = id == NOISE ? 0.0f : Float.POSITIVE_INFINITY;
    }
    TestSupport.scriptNetwork(INPUT_SIZE, INPUT_SIZE, logits);
  }

  private static long reference(ArtifactDetector d) throws ReflectiveOperationException {
    Field field = ArtifactDetector.class.getDeclaredField("artifact_detector_reference");
    field.setAccessible(true);
    return field.getLong(d);
  }

  private static byte[] frame() {
    byte[] bgr = new byte[WIDTH * HEIGHT * 3];
    for (int i = 0; i < bgr.length; ++i) {
      bgr[i] = (byte) (i * 7 + (i / 97) * 13);
    }
    return bgr;
  }

  private static byte[] uniformFrame() {
    byte[] bgr = new byte[WIDTH * HEIGHT * 3];
    java.util.Arrays.fill(bgr, (byte) 90);
    return bgr;
  }

  private static String modelsPath() {
    return models.toString() + "/";
  }

  /** A models directory whose info file names a model the fake "opens" without reading it. */
  private static Path makeModels() throws IOException {
    Path base = Files.createTempDirectory("ad_jvm_test");
    Path dir = Files.createDirectories(base.resolve("artifact_detector"));
    String info = "{\n\"model_type\": \"cpu\",\n\"precision\": \"float32\",\n\"model_path\": \""
        + dir.resolve("net.onnx") + "\"\n}\n";
    Files.write(dir.resolve("artifact_detector_cnn.info"), info.getBytes(StandardCharsets.UTF_8));
    return base;
  }

  private static void deleteTree(Path root) throws IOException {
    try (Stream<Path> paths = Files.walk(root)) {
      for (Path p : (Iterable<Path>) paths.sorted(Comparator.reverseOrder())::iterator) {
        Files.delete(p);
      }
    }
  }
}
