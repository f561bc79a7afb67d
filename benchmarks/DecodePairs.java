import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.Externalizable;
import java.io.IOException;
import java.io.ObjectInput;
import java.io.ObjectInputStream;
import java.io.ObjectOutput;
import java.io.ObjectOutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * Decodes the id-value pairs of a file, one pair per line, from a serialised stream in memory, and
 * prints the median time in nanoseconds.
 */
public class DecodePairs {
    private static final int WARM_UP = 3000;
    private static final int ROUNDS = 301;

    /** A statistic as a gateway writes it: an object whose block data holds the two texts. */
    public static final class Stat implements Externalizable {
        private static final long serialVersionUID = 1L;
        String id;
        String value;

        @Override
        public void writeExternal(ObjectOutput out) throws IOException {
            out.writeUTF(id);
            out.writeUTF(value);
        }

        @Override
        public void readExternal(ObjectInput in) throws IOException {
            id = in.readUTF();
            value = in.readUTF();
        }
    }

    private static byte[] serialise(Path pairs) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        try (ObjectOutputStream out = new ObjectOutputStream(bytes)) {
            for (String line : Files.readAllLines(pairs)) {
                int tab = line.indexOf('\t');
                Stat stat = new Stat();
                stat.id = line.substring(0, tab);
                stat.value = line.substring(tab + 1);
                out.writeObject(stat);
            }
        }
        return bytes.toByteArray();
    }

    private static long decode(byte[] bytes, Stat[] stats) throws Exception {
        long start = System.nanoTime();
        try (ObjectInputStream in = new ObjectInputStream(new ByteArrayInputStream(bytes))) {
            for (int i = 0; i < stats.length; ++i) stats[i] = (Stat) in.readObject();
        }
        return System.nanoTime() - start;
    }

    public static void main(String[] arguments) throws Exception {
        Path pairs = Path.of(arguments[0]);
        byte[] bytes = serialise(pairs);
        Stat[] stats = new Stat[Files.readAllLines(pairs).size()];
        for (int i = 0; i < WARM_UP; ++i) decode(bytes, stats);
        long[] times = new long[ROUNDS];
        for (int i = 0; i < ROUNDS; ++i) times[i] = decode(bytes, stats);
        Arrays.sort(times);
        System.out.println(times[ROUNDS / 2]);
    }
}
