package tessaroven.pkd.artifactdetector;

import java.io.Closeable;

/**
 * Managed side of the artifact detector: reports which image artifacts one camera frame shows.
 *
 * <p>Two ways to use it:
 *
 * <ul>
 *   <li>The safe surface, for app code: {@link #initialize}, {@link #detect}, {@link
 *       #getResultJson} and {@link #close}. It always addresses the detector this object owns,
 *       checks the frame size before handing the bytes to native code, releases the native
 *       detector exactly once and refuses use after {@code close()}. Its methods are
 *       synchronized, so one object may be shared between threads.
 *   <li>The four native methods the library implements ({@code initializeJNI} and its
 *       siblings), unchanged, for callers written against them. They check nothing: calling
 *       {@code releaseJNI(0)} twice, or using the object after it, is a double free.
 * </ul>
 *
 * <p>Native library: the first constructor call loads it, from the absolute path given to the
 * constructor, else from the absolute path in the system property {@value
 * #LIBRARY_PATH_PROPERTY}, else by its name {@value #LIBRARY_NAME} through {@link
 * System#loadLibrary} (the app's native library directory or the vendor's public libraries on
 * Android, {@code java.library.path} on hosts). Once loaded, later paths are ignored.
 *
 * <p>Results: a compact JSON array such as {@code
 * [{"score":0.8999999761581421,"tag":"DonutBlur","tag_id":5}]}, members always in that order;
 * {@code "[]"} when the last successful run found nothing, {@code ""} when there is no detector.
 */
public class ArtifactDetector implements Closeable {
  /** Name of the native library for {@link System#loadLibrary}. */
  public static final String LIBRARY_NAME = "ArtifactDetector_v1.camera.korvane";

  /** System property that may hold the absolute path of the native library. */
  public static final String LIBRARY_PATH_PROPERTY = "tessaroven.pkd.artifactdetector.library";

  /** The mode under which native methods use the detector kept in this object. */
  public static final int MODE_OWN_DETECTOR = 0;

  private static final int BYTES_PER_BGR_PIXEL = 3;
  // The native side ignores the format argument: frames are always BGR.
  private static final int FORMAT_BGR = 1;

  private static boolean libraryLoaded;

  /** Address of the native detector, 0 when none; read and written by the native methods. */
  private long artifact_detector_reference;

  private boolean closed;

  /** Loads the native library as described above (if not yet loaded). */
  public ArtifactDetector() {
    this(null);
  }

  /**
   * Loads the native library from {@code libraryPath} (absolute; null or empty to fall back to
   * the system property or the library name) if it is not loaded yet.
   */
  public ArtifactDetector(String libraryPath) {
    loadLibrary(libraryPath);
  }

  /** Loads the native library as described above; shared with {@link Detector}. */
  static synchronized void loadLibrary(String libraryPath) {
    if (libraryLoaded) {
      return;
    }
    String path = libraryPath;
    if (path == null || path.isEmpty()) {
      path = System.getProperty(LIBRARY_PATH_PROPERTY);
    }
    if (path != null && !path.isEmpty()) {
      System.load(path);
    } else {
      System.loadLibrary(LIBRARY_NAME);
    }
    libraryLoaded = true;
  }

  // ---- Safe surface -----------------------------------------------------------------------

  /**
   * Creates the native detector on first use and opens the model found under {@code
   * modelsPath} (a directory ending in "/" that holds the model directories). A repeated call
   * reopens the model on the same detector.
   *
   * @return true when the detector is ready
   */
  public synchronized boolean initialize(String modelsPath) {
    ensureOpen();
    if (modelsPath == null) {
      throw new IllegalArgumentException("modelsPath is null");
    }
    return initializeJNI(MODE_OWN_DETECTOR, modelsPath);
  }

  /**
   * Runs the detector on one upright frame of {@code width} x {@code height} pixels, three
   * bytes B, G, R each, rows tightly packed. The frame is not rotated: turn it upright first.
   *
   * @return true when the network ran; the results of this frame then replace the last ones.
   *     False before a successful {@link #initialize}, for a uniform-colour frame or a failed
   *     run; the previous results are then kept.
   */
  public synchronized boolean detect(byte[] bgr, int width, int height) {
    ensureOpen();
    if (bgr == null) {
      throw new IllegalArgumentException("frame is null");
    }
    if (width <= 0 || height <= 0) {
      throw new IllegalArgumentException("frame size " + width + "x" + height);
    }
    // Compared in pixels so that no product can overflow.
    if ((long) width * height > bgr.length / BYTES_PER_BGR_PIXEL) {
      throw new IllegalArgumentException("frame holds " + bgr.length + " bytes, too few for "
          + width + "x" + height + " BGR pixels");
    }
    return executeWithBtyeArrayJNI(bgr, width, height, 0, FORMAT_BGR, MODE_OWN_DETECTOR);
  }

  /** The artifacts of the last successful run as JSON (see the class description). */
  public synchronized String getResultJson() {
    ensureOpen();
    return getArtifactInfoJNI(MODE_OWN_DETECTOR);
  }

  /** Releases the native detector. Later calls do nothing; other methods then throw. */
  @Override
  public synchronized void close() {
    if (closed) {
      return;
    }
    closed = true;
    releaseJNI(MODE_OWN_DETECTOR);
    // The native side leaves the stale address behind; forget it here.
    artifact_detector_reference = 0;
  }

  private void ensureOpen() {
    if (closed) {
      throw new IllegalStateException("ArtifactDetector is closed");
    }
  }

  // ---- Native methods ---------------------------------------------------------------------

  /**
   * Mode 0: creates the detector kept in this object if there is none, then initialises it.
   * Other modes initialise a detector of their own that is never kept or released.
   */
  public native boolean initializeJNI(int mode, String modelPath);

  /**
   * Mode 0: runs the kept detector on an upright BGR frame; {@code rotation} and {@code format}
   * are not used. Other modes return false. {@code image} must hold width x height x 3 bytes.
   */
  public native boolean executeWithBtyeArrayJNI(
      byte[] image, int width, int height, int rotation, int format, int mode);

  /** Mode 0: the kept detector's results as JSON, "" without a detector; other modes "". */
  public native String getArtifactInfoJNI(int mode);

  /** Mode 0: destroys the kept detector. Must not be called twice; other modes do nothing. */
  public native void releaseJNI(int mode);
}
