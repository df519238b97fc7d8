package tessaroven.pkd.artifactdetector;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;

/** Test-only natives: log capture, the scripted inference library, the exported globals. */
final class TestSupport {
  private TestSupport() {}

  /** Fails the test, saying {@code what}, unless {@code actual} equals {@code expected}. */
  static void check(Object expected, Object actual, String what) {
    if (!expected.equals(actual)) {
      throw new AssertionError(what + ": expected <" + expected + ">, was <" + actual + ">");
    }
  }

  /** A models folder, '/' ended, whose info file names {@code model}; deleted at exit. */
  static String models(String model) throws IOException {
    Path dir = Files.createTempDirectory("ad_jvm_test").resolve("artifact_detector");
    dir.getParent().toFile().deleteOnExit();  // deleted in the reverse order of creation
    Files.createDirectories(dir).toFile().deleteOnExit();
    String info = "{\n\"model_type\": \"cpu\",\n\"precision\": \"float32\",\n\"model_path\": \""
        + model + "\"\n}\n";
    Files.write(dir.resolve("artifact_detector_cnn.info"), info.getBytes(StandardCharsets.UTF_8))
        .toFile().deleteOnExit();
    return dir.getParent() + "/";
  }

  /** Loads the support library named by the system property "ad.test.support.library". */
  static void load() {
    System.load(System.getProperty("ad.test.support.library"));
  }

  /** From now on the bindings' info messages are kept (header cut), earlier ones dropped. */
  static native void captureLog();

  /** The messages kept since the last call, each ended by a line feed. */
  static native String takeLog();

  /** A fresh fake network that finds exactly the artifact ids given (Noise at 0.5, others 1). */
  static native void scriptNetwork(int... found);

  /** From now on every run of the fake network throws, until the next {@link #scriptNetwork}. */
  static native void failRuns();

  /** Whether the library's exported "jvm" is this VM and its "main_obj" refers to {@code o}. */
  static native boolean globalsAre(Object o);
}
