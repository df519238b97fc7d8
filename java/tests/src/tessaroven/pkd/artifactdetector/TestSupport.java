package tessaroven.pkd.artifactdetector;

/** Test-only natives: log capture, the scripted inference library, the exported globals. */
final class TestSupport {
  private TestSupport() {}

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
