package example;

import java.awt.image.BufferedImage;
import java.io.File;
import java.io.IOException;
import java.nio.ByteBuffer;
import javax.imageio.ImageIO;
import tessaroven.pkd.artifactdetector.Detector;

/**
 * An analyzer shaped like CameraX's {@code ImageAnalysis.Analyzer}: each frame's
 * YUV_420_888 planes go to the detector as they are, strides and rotation included.
 *
 * <p>On Android, implement {@code ImageAnalysis.Analyzer} and take {@code ImageProxy} where
 * this class takes {@link Image}: the method names are the same. The main method plays the
 * camera: it turns an image file into padded planes with pixel stride 2 and hands them over
 * at each rotation.
 *
 * <pre>
 *   java -cp artifact-detector.jar:artifact-detector-example.jar example.FrameAnalyzer \
 *        /usr/local/share/artifact_detector/models photo.jpg
 * </pre>
 */
public final class FrameAnalyzer {
  /** The part of CameraX's {@code ImageProxy} that the analyzer uses. */
  public interface Image {
    int getWidth();

    int getHeight();

    /** {@code ImageProxy.getImageInfo().getRotationDegrees()} on Android. */
    int getRotationDegrees();

    Plane[] getPlanes();

    void close();
  }

  /** The part of CameraX's {@code ImageProxy.PlaneProxy} that the analyzer uses. */
  public interface Plane {
    ByteBuffer getBuffer();

    int getRowStride();

    int getPixelStride();
  }

  private final Detector detector;

  public FrameAnalyzer(Detector detector) {
    this.detector = detector;
  }

  /** The analyzer's one method: runs the frame, then closes it so the camera can go on. */
  public Detector.Result analyze(Image image) {
    try {
      Plane[] p = image.getPlanes();
      return detector.detectYuv420888(p[0].getBuffer(), p[0].getRowStride(), p[1].getBuffer(),
          p[2].getBuffer(), p[1].getRowStride(), p[1].getPixelStride(), image.getWidth(),
          image.getHeight(), image.getRotationDegrees());
    } finally {
      image.close();
    }
  }

  public static void main(String[] args) throws IOException {
    if (args.length != 2) {
      System.err.println("usage: FrameAnalyzer MODELS_DIR IMAGE");
      System.exit(2);
    }
    BufferedImage picture = ImageIO.read(new File(args[1]));
    if (picture == null) {
      throw new IOException("not an image: " + args[1]);
    }
    try (Detector detector = Detector.open(args[0])) {
      if (!detector.isReady()) {
        System.err.println("detector not ready: " + detector.error());
        System.exit(1);
      }
      FrameAnalyzer analyzer = new FrameAnalyzer(detector);
      System.out.println("artifact detector " + Detector.version());
      for (int rotation = 0; rotation < 360; rotation += 90) {
        Detector.Result r = analyzer.analyze(CameraImage.of(picture, rotation));
        System.out.println(rotation + ": " + r.status + " " + r.artifacts);
      }
    }
  }

  /** A camera frame made from a picture: even size, rows padded, V and U interleaved. */
  static final class CameraImage implements Image {
    private static final int PAD = 16;
    private final int width;
    private final int height;
    private final int rotation;
    private final Plane[] planes;

    private CameraImage(int width, int height, int rotation, Plane[] planes) {
      this.width = width;
      this.height = height;
      this.rotation = rotation;
      this.planes = planes;
    }

    static CameraImage of(BufferedImage picture, int rotation) {
      int w = picture.getWidth() & ~1;
      int h = picture.getHeight() & ~1;
      int stride = w + PAD;
      ByteBuffer y = ByteBuffer.allocateDirect(stride * h);
      // One chroma block V,U,V,U..., as many phones give it: U starts one byte after V.
      ByteBuffer vu = ByteBuffer.allocateDirect(stride * (h / 2));
      for (int r = 0; r < h; r++) {
        for (int c = 0; c < w; c++) {
          int rgb = picture.getRGB(c, r);
          double red = rgb >> 16 & 0xff;
          double green = rgb >> 8 & 0xff;
          double blue = rgb & 0xff;
          double luma = 0.299 * red + 0.587 * green + 0.114 * blue;
          y.put(r * stride + c, clamp(luma));
          if (r % 2 == 0 && c % 2 == 0) {
            int at = r / 2 * stride + c;
            vu.put(at, clamp(128 + 0.713 * (red - luma)));
            vu.put(at + 1, clamp(128 + 0.564 * (blue - luma)));
          }
        }
      }
      ByteBuffer v = vu.duplicate();
      vu.position(1);
      ByteBuffer u = vu.slice();
      return new CameraImage(w, h, rotation,
          new Plane[] {plane(y, stride, 1), plane(u, stride, 2), plane(v, stride, 2)});
    }

    private static byte clamp(double value) {
      return (byte) Math.max(0, Math.min(255, Math.round(value)));
    }

    private static Plane plane(ByteBuffer buffer, int rowStride, int pixelStride) {
      return new Plane() {
        @Override
        public ByteBuffer getBuffer() {
          return buffer;
        }

        @Override
        public int getRowStride() {
          return rowStride;
        }

        @Override
        public int getPixelStride() {
          return pixelStride;
        }
      };
    }

    @Override
    public int getWidth() {
      return width;
    }

    @Override
    public int getHeight() {
      return height;
    }

    @Override
    public int getRotationDegrees() {
      return rotation;
    }

    @Override
    public Plane[] getPlanes() {
      return planes;
    }

    @Override
    public void close() {}
  }
}
