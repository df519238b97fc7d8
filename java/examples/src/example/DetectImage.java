package example;

import java.awt.image.BufferedImage;
import java.awt.image.DataBufferByte;
import java.io.File;
import java.io.IOException;
import javax.imageio.ImageIO;
import tessaroven.pkd.artifactdetector.ArtifactDetector;

/**
 * App-side use of the detector: reads an image file, hands its pixels to the library as a BGR
 * frame and prints the artifacts found as the library's JSON text.
 *
 * <pre>
 *   java -cp artifact-detector.jar:artifact-detector-example.jar \
 *        -Dtessaroven.pkd.artifactdetector.library=/usr/local/lib/libArtifactDetector_v1.camera.korvane.so \
 *        example.DetectImage /usr/local/share/artifact_detector/models/ photo.jpg
 * </pre>
 */
public final class DetectImage {
  private DetectImage() {}

  public static void main(String[] args) throws IOException {
    if (args.length != 2) {
      System.err.println("usage: DetectImage MODELS_DIR IMAGE");
      System.exit(2);
    }
    BufferedImage bgr = readAsBgr(new File(args[1]));
    byte[] pixels = ((DataBufferByte) bgr.getRaster().getDataBuffer()).getData();

    try (ArtifactDetector detector = new ArtifactDetector()) {
      String models = args[0].endsWith("/") ? args[0] : args[0] + "/";
      if (!detector.initialize(models)) {
        System.err.println("cannot initialise the detector from " + models);
        System.exit(1);
      }
      // False means no result for this frame, e.g. a uniform-colour image.
      boolean ran = detector.detect(pixels, bgr.getWidth(), bgr.getHeight());
      System.out.println(ran ? detector.getResultJson() : "[]");
    }
  }

  // ImageIO decodes to many layouts; TYPE_3BYTE_BGR stores exactly the frame layout the
  // detector takes: three bytes B, G, R per pixel, rows without padding.
  private static BufferedImage readAsBgr(File file) throws IOException {
    BufferedImage image = ImageIO.read(file);
    if (image == null) {
      throw new IOException("not an image: " + file);
    }
    BufferedImage bgr =
        new BufferedImage(image.getWidth(), image.getHeight(), BufferedImage.TYPE_3BYTE_BGR);
    bgr.getGraphics().drawImage(image, 0, 0, null);
    return bgr;
  }
}
