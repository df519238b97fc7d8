package tessaroven.pkd.artifactdetector;

import java.lang.ref.PhantomReference;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * Reports which image artifacts a camera frame shows, taking frames as cameras give them.
 *
 * <pre>{@code
 * try (Detector detector = Detector.open(modelsDir)) {
 *   Detector.Result r = detector.detectYuv420888(y, yRowStride, u, v, uvRowStride,
 *       uvPixelStride, width, height, rotationDegrees);
 *   if (r.status == Detector.Status.ANALYSED) {
 *     for (Detector.Artifact a : r.artifacts) { ... a.name, a.probability ... }
 *   }
 * }
 * }</pre>
 *
 * <p>Frames: width and height are those of the frame as stored (before rotation); the rotation
 * is clockwise, 0, 90, 180 or 270 (CameraX's {@code ImageInfo.getRotationDegrees()}). YUV
 * frames need even sizes; their range is full unless {@link Range#VIDEO} is given. Nothing is
 * kept after a call returns. A wrong frame description is answered with {@link
 * Status#INVALID_INPUT} and a reason; a buffer too short for the description it comes with
 * throws {@link IllegalArgumentException} before native code reads it.
 *
 * <p>Threads: one detector may be shared; its calls are serialised. Results are values.
 *
 * <p>Lifetime: {@link #close} frees the native detector at once. A detector that becomes
 * unreachable without {@code close()} is freed by a later {@link #open} (a phantom reference
 * with a reference queue, which works on every Android API level).
 *
 * <p>The native library is loaded as {@link ArtifactDetector} describes.
 */
public final class Detector implements AutoCloseable {
  /** Number of artifact classes; ids run from 1 to this. */
  public static final int CLASS_COUNT = 11;

  /** Android log priorities for {@link #open(String, boolean, int)}. */
  public static final int LOG_DEBUG = 3;

  /** Drops every log line of the detector. */
  public static final int LOG_SILENT = 8;

  /** How a frame's run ended. */
  public enum Status {
    /** The network ran; artifacts and probabilities are this frame's. */
    ANALYSED,
    /** One colour (lens cap, wall): not analysed. */
    UNIFORM_FRAME,
    /** The model did not open; see {@link Detector#error()}. */
    NOT_READY,
    /** The frame description is wrong; see {@link Result#reason}. */
    INVALID_INPUT,
    /** The inference library failed on a valid frame; see {@link Result#reason}. */
    FAILED
  }

  /** The range of YUV samples. */
  public enum Range {
    /** Y and chroma over 0..255 (JPEG, most camera NV21 and YUV_420_888). */
    FULL,
    /** Y over 16..235, chroma over 16..240 (many video decoders). */
    VIDEO
  }

  /** One accepted artifact. */
  public static final class Artifact {
    /** Class id, 1 to {@link #CLASS_COUNT}. */
    public final int id;
    /** Class name, such as "Blur". */
    public final String name;
    /** The network's probability for the class. */
    public final float probability;

    Artifact(int id, String name, float probability) {
      this.id = id;
      this.name = name;
      this.probability = probability;
    }

    @Override
    public String toString() {
      return name + "(" + id + ")=" + probability;
    }
  }

  /** The outcome of one frame. */
  public static final class Result {
    /** How the run ended. */
    public final Status status;
    /** Why it was not analysed; empty when it was. */
    public final String reason;
    /** Accepted artifacts in ascending id; empty unless analysed. */
    public final List<Artifact> artifacts;

    private final float[] probabilities;

    Result(Status status, String reason, List<Artifact> artifacts, float[] probabilities) {
      this.status = status;
      this.reason = reason;
      this.artifacts = artifacts;
      this.probabilities = probabilities;
    }

    /** Every class's probability, class id n at index n - 1; all 0 unless analysed. */
    public float[] probabilities() {
      return probabilities.clone();
    }

    /** The probability of class {@code id}. */
    public float probability(int id) {
      return probabilities[id - 1];
    }
  }

  private static final int FORMAT_NV21 = 0;
  private static final int FORMAT_RGBA = 3;

  // Detectors not yet freed, reachable through here until close() or the queue frees them.
  private static final ReferenceQueue<Detector> UNREACHABLE = new ReferenceQueue<>();
  private static final Set<NativeHandle> LIVE = Collections.synchronizedSet(new HashSet<>());
  private static volatile String[] classNames;

  /** Frees the native detector once, whoever comes first: close() or the reference queue. */
  private static final class NativeHandle extends PhantomReference<Detector> {
    private long address;

    NativeHandle(Detector owner, long address) {
      super(owner, UNREACHABLE);
      this.address = address;
    }

    synchronized void free() {
      if (address != 0) {
        nativeDestroy(address);
        address = 0;
      }
      LIVE.remove(this);
      clear();
    }
  }

  private final NativeHandle handle;
  private final long address;
  private boolean closed;

  private Detector(long address) {
    this.address = address;
    this.handle = new NativeHandle(this, address);
    LIVE.add(handle);
  }

  /** {@link #open(String, boolean, int)} quiet, logging at debug priority. */
  public static Detector open(String modelsDir) {
    return open(modelsDir, true, LOG_DEBUG);
  }

  /**
   * Opens the model under {@code modelsDir}, the folder that holds "artifact_detector/" (a
   * trailing '/' is optional; empty: the device's model folders). Always returns a detector;
   * check {@link #isReady()}.
   *
   * @param quiet nothing on standard output, every log line at {@code logPriority}
   * @param logPriority an Android log priority; {@link #LOG_SILENT} drops them all
   */
  public static Detector open(String modelsDir, boolean quiet, int logPriority) {
    if (modelsDir == null) {
      throw new IllegalArgumentException("modelsDir is null");
    }
    ArtifactDetector.loadLibrary(null);
    freeUnreachable();
    long address = nativeOpen(modelsDir, quiet, logPriority);
    if (address == 0) {
      throw new IllegalStateException("the native detector could not be created");
    }
    return new Detector(address);
  }

  /** Frees the native detectors of every Detector that was dropped without close(). */
  public static void freeUnreachable() {
    Reference<? extends Detector> ref;
    while ((ref = UNREACHABLE.poll()) != null) {
      ((NativeHandle) ref).free();
    }
  }

  /** Number of detectors neither closed nor yet freed by {@link #freeUnreachable()}. */
  public static int liveCount() {
    return LIVE.size();
  }

  /** The native library's version, "major.minor.patch". */
  public static String version() {
    ArtifactDetector.loadLibrary(null);
    return nativeVersion();
  }

  /** Whether the model opened; otherwise every run answers {@link Status#NOT_READY}. */
  public synchronized boolean isReady() {
    return error().isEmpty();
  }

  /** Why the detector is not ready; empty when it is. */
  public synchronized String error() {
    ensureOpen();
    return nativeError(address);
  }

  /** The network's input width in pixels; 0 when not ready. */
  public synchronized int inputWidth() {
    ensureOpen();
    return (int) (nativeInputSize(address) >>> 32);
  }

  /** The network's input height in pixels; 0 when not ready. */
  public synchronized int inputHeight() {
    ensureOpen();
    return (int) nativeInputSize(address);
  }

  /** A tightly packed full-range NV21 frame (Y plane, then V,U rows). */
  public Result detectNv21(byte[] nv21, int width, int height, int rotation) {
    return detectNv21(nv21, width, height, rotation, Range.FULL);
  }

  /** A tightly packed NV21 frame of the given range. */
  public synchronized Result detectNv21(
      byte[] nv21, int width, int height, int rotation, Range range) {
    ensureOpen();
    checkArray(nv21, (long) width * height + 2L * ((width + 1) / 2) * ((height + 1) / 2));
    return run(FORMAT_NV21, nv21, width, height, 0, rotation, range);
  }

  /** RGBA pixels (alpha ignored), rows {@code rowStride} bytes apart (0: tightly packed). */
  public synchronized Result detectRgba(
      byte[] rgba, int width, int height, int rowStride, int rotation) {
    ensureOpen();
    long stride = rowStride == 0 ? 4L * width : rowStride;
    checkArray(rgba, stride * (height - 1) + 4L * width);
    return run(FORMAT_RGBA, rgba, width, height, rowStride, rotation, Range.FULL);
  }

  /** A full-range YUV_420_888 frame as {@code android.media.Image} planes give it. */
  public Result detectYuv420888(ByteBuffer y, int yRowStride, ByteBuffer u, ByteBuffer v,
      int uvRowStride, int uvPixelStride, int width, int height, int rotation) {
    return detectYuv420888(
        y, yRowStride, u, v, uvRowStride, uvPixelStride, width, height, rotation, Range.FULL);
  }

  /**
   * A YUV_420_888 frame: three direct buffers from their positions, the luma rows {@code
   * yRowStride} bytes apart, chroma rows {@code uvRowStride} apart with samples {@code
   * uvPixelStride} (1 or 2) apart.
   */
  public synchronized Result detectYuv420888(ByteBuffer y, int yRowStride, ByteBuffer u,
      ByteBuffer v, int uvRowStride, int uvPixelStride, int width, int height, int rotation,
      Range range) {
    ensureOpen();
    if (width > 0 && height > 0) {
      checkPlane("y", y, (long) yRowStride * (height - 1) + width);
      long chroma = (long) uvRowStride * ((height + 1) / 2 - 1)
          + (long) uvPixelStride * ((width + 1) / 2 - 1) + 1;
      checkPlane("u", u, chroma);
      checkPlane("v", v, chroma);
    }
    float[] probabilities = new float[CLASS_COUNT];
    String[] reason = new String[1];
    long code = nativeDetectPlanes(address, y, position(y), yRowStride, u, position(u), v,
        position(v), uvRowStride, uvPixelStride, width, height, rotation, range.ordinal(),
        probabilities, reason);
    return result(code, probabilities, reason[0]);
  }

  /** The acceptance threshold of class {@code id}, or NaN when the class has none. */
  public synchronized float threshold(int id) {
    ensureOpen();
    return nativeThreshold(address, id);
  }

  /** Sets the acceptance threshold of class {@code id} (1 to 11) for this detector only. */
  public synchronized void setThreshold(int id, float threshold) {
    ensureOpen();
    if (id < 1 || id > CLASS_COUNT) {
      throw new IllegalArgumentException("class id " + id);
    }
    nativeSetThreshold(address, id, threshold);
  }

  /** Frees the native detector. Later calls do nothing; other methods then throw. */
  @Override
  public synchronized void close() {
    if (!closed) {
      closed = true;
      handle.free();
    }
  }

  private Result run(
      int format, byte[] data, int width, int height, int rowStride, int rotation, Range range) {
    float[] probabilities = new float[CLASS_COUNT];
    String[] reason = new String[1];
    long code = nativeDetectBytes(address, data, format, width, height, rowStride, rotation,
        range.ordinal(), probabilities, reason);
    return result(code, probabilities, reason[0]);
  }

  private static Result result(long code, float[] probabilities, String reason) {
    String[] names = names();
    List<Artifact> artifacts = new ArrayList<>();
    for (int id = 1; id <= CLASS_COUNT; id++) {
      if ((code >>> (8 + id - 1) & 1) != 0) {
        artifacts.add(new Artifact(id, names[id - 1], probabilities[id - 1]));
      }
    }
    Status status = Status.values()[(int) (code & 0xff)];
    return new Result(status, reason, Collections.unmodifiableList(artifacts), probabilities);
  }

  private static String[] names() {
    String[] names = classNames;
    if (names == null) {
      names = new String[CLASS_COUNT];
      for (int id = 1; id <= CLASS_COUNT; id++) {
        names[id - 1] = nativeClassName(id);
      }
      classNames = names;
    }
    return names;
  }

  private static int position(ByteBuffer b) {
    return b == null ? 0 : b.position();
  }

  private static void checkArray(byte[] data, long needed) {
    if (data == null) {
      throw new IllegalArgumentException("frame is null");
    }
    if (needed > data.length) {
      throw new IllegalArgumentException(
          "frame holds " + data.length + " bytes, its description needs " + needed);
    }
  }

  private static void checkPlane(String name, ByteBuffer b, long needed) {
    if (b == null) {
      return;  // answered by the native side as invalid input
    }
    if (!b.isDirect()) {
      throw new IllegalArgumentException("plane " + name + " is not a direct buffer");
    }
    if (needed > b.remaining()) {
      throw new IllegalArgumentException("plane " + name + " holds " + b.remaining()
          + " bytes, its strides need " + needed);
    }
  }

  private void ensureOpen() {
    if (closed) {
      throw new IllegalStateException("Detector is closed");
    }
  }

  private static native long nativeOpen(String modelsDir, boolean quiet, int logPriority);

  private static native void nativeDestroy(long address);

  private static native String nativeError(long address);

  private static native long nativeInputSize(long address);

  private static native long nativeDetectBytes(long address, byte[] data, int format, int width,
      int height, int rowStride, int rotation, int range, float[] probabilities, String[] reason);

  private static native long nativeDetectPlanes(long address, ByteBuffer y, int yOffset,
      int yRowStride, ByteBuffer u, int uOffset, ByteBuffer v, int vOffset, int uvRowStride,
      int uvPixelStride, int width, int height, int rotation, int range, float[] probabilities,
      String[] reason);

  private static native float nativeThreshold(long address, int id);

  private static native void nativeSetThreshold(long address, int id, float threshold);

  private static native String nativeClassName(int id);

  private static native String nativeVersion();
}
