package tessaroven.pkd.artifactdetector;

/** Test-only natives: log capture, the scripted inference library, the exported globals. */
final class TestSupport {
  private TestSupport() {}

  /** Loads the support library named by the system property "ad.test.support.library". */
  static void load() {
    System.load(System.getProperty("ad.test.support.library"));
  }

  /** From now on every log line (verbose included) is kept, and earlier ones dropped. */
  static native void captureLog();

  /** The lines kept since the last call, each "tag TAB priority TAB text". */
  static native String[] takeLog();

  /** Fresh fake network of the given input size whose output is logits[id] for each id. */
  static native void scriptNetwork(int width, int height, float[] logits);

  /** Whether the library's exported "jvm" is this VM. */
  static native boolean jvmIsThisVm();

  /** Whether the library's exported "main_obj" refers to {@code object}. */
  static native boolean mainObjectIs(Object object);
}
