package com.kro.zeb.sim;

import java.io.BufferedOutputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.Externalizable;
import java.io.IOException;
import java.io.ObjectInput;
import java.io.ObjectOutput;
import java.io.ObjectOutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;

/**
 * Writes answers of a gateway, and what a client must make of each, to standard output. The JDK's
 * own serialiser writes the objects, so that it decides where block data are cut.
 *
 * <p>Each answer is one record: 'i' (ids) or 's' (statistics), the length of the answer, the
 * answer, the length of the content, and the content of the result set buffer without its
 * terminator. Lengths are big-endian; the integers of the content are in the order of this host.
 */
public final class CutAnswers {
    private static final int MOST = 20_000;
    private static final Random RANDOM = new Random(9);

    public static void main(String[] arguments) throws IOException {
        try (DataOutputStream out = new DataOutputStream(new BufferedOutputStream(System.out, 1 << 16))) {
            for (int size = 6; size <= MOST; ++size) write(out, 'i', List.of(idsOf(size)), false);
            for (int i = 0; i < 1000; ++i) write(out, 'i', some(() -> idsOf(pick(6, 5000))), true);
            for (int size = 6; size <= 5000; ++size) write(out, 's', List.of(queryOf(size)), false);
            for (int idLength = 1000; idLength <= 1040; ++idLength) {
                for (int valueLength = 0; valueLength <= 40; ++valueLength) {
                    write(out, 's', List.of(new StatsReply("q", 0, List.of(statOf(idLength, valueLength)))), false);
                }
            }
            for (int i = 0; i < 3000; ++i) write(out, 's', some(() -> statsOf(pick(0, 5))), true);
        }
    }

    private interface Maker {
        Reply make();
    }

    private static List<Reply> some(Maker maker) {
        List<Reply> replies = new ArrayList<>();
        for (int i = pick(0, 4); i > 0; --i) replies.add(maker.make());
        return replies;
    }

    private static int pick(int least, int most) {
        return least + RANDOM.nextInt(most - least + 1);
    }

    /** A text of this length in modified UTF-8, in which characters of one, two and three bytes occur. */
    private static String text(int length) {
        StringBuilder text = new StringBuilder();
        for (int left = length; left > 0; ) {
            int width = Math.min(left, RANDOM.nextInt(10) < 8 ? 1 : pick(2, 3));
            text.append(width == 1 ? (char) pick('A', 'z') : width == 2 ? "\0\u00E5".charAt(pick(0, 1)) : '\u20AC');
            left -= width;
        }
        return text.toString();
    }

    /** A response with this many bytes of block data. The smallest are refusals, which have no count. */
    private static Reply idsOf(int size) {
        if (size < 10) return new IdsReply(text(size - 6), -1, List.of());
        int query = Math.min(size - 10, pick(0, 9) == 0 ? pick(0, 2000) : pick(0, 20));
        int left = size - 10 - query;
        if (left == 1) {
            ++query;
            left = 0;
        }
        int longest = pick(0, 3) == 0 ? 3000 : 40;
        List<String> ids = new ArrayList<>();
        while (left > 0) {
            int length = Math.min(left - 2, pick(0, longest));
            if (left - 2 - length == 1) length = left - 2;  // an id has at least two bytes
            ids.add(text(length));
            left -= 2 + length;
        }
        return new IdsReply(text(query), pick(0, 3), ids);
    }

    private static Reply queryOf(int size) {
        if (size < 10 || pick(0, 3) == 0) return new StatsReply(text(size - 6), -pick(1, 9), List.of());
        return new StatsReply(text(size - 10), 0, statsOf(pick(0, 2)).stats);
    }

    private static StatsReply statsOf(int count) {
        List<Stat> stats = new ArrayList<>();
        for (int i = 0; i < count; ++i) {
            stats.add(statOf(pick(0, 1) == 0 ? pick(1, 40) : pick(900, 7000), pick(0, 2) == 0 ? pick(0, 5000) : pick(0, 40)));
        }
        return new StatsReply(text(pick(0, 9) == 0 ? pick(1000, 3000) : pick(0, 20)), 0, stats);
    }

    private static Stat statOf(int idLength, int valueLength) {
        Stat stat = new Stat();
        stat.id = text(idLength);
        stat.value = text(valueLength);
        return stat;
    }

    private static void write(DataOutputStream out, char kind, List<? extends Reply> replies, boolean isList)
            throws IOException {
        ByteArrayOutputStream answer = new ByteArrayOutputStream();
        Content content = new Content(kind == 's' ? "ZEBSTSET" : "ZEBIDSET");
        answer.write(isList ? 1 : 0);
        if (isList) new DataOutputStream(answer).writeInt(replies.size());
        content.add(replies.size());
        for (Reply reply : replies) {
            try (ObjectOutputStream objects = new ObjectOutputStream(answer)) {
                objects.writeObject(reply);
            }
            reply.describe(content);
        }
        out.write(kind);
        out.writeInt(answer.size());
        answer.writeTo(out);
        out.writeInt(content.bytes.size());
        content.bytes.writeTo(out);
    }
}

/** The content of a result set buffer. */
final class Content {
    final ByteArrayOutputStream bytes = new ByteArrayOutputStream();

    Content(String marker) throws IOException {
        bytes.write(marker.getBytes("US-ASCII"));
    }

    void add(int number) throws IOException {
        bytes.write(ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(number).array());
    }

    void add(String text) throws IOException {
        ByteArrayOutputStream counted = new ByteArrayOutputStream();
        new DataOutputStream(counted).writeUTF(text);
        add(counted.size() - 2);
        bytes.write(counted.toByteArray(), 2, counted.size() - 2);
    }
}

/** The head of a response. */
abstract class Reply implements Externalizable {
    private static final long serialVersionUID = 0x1122334455667788L;
    final String query;
    final int rc;

    Reply(String query, int rc) {
        this.query = query;
        this.rc = rc;
    }

    abstract void describe(Content content) throws IOException;

    final boolean writeHead(ObjectOutput out, int count) throws IOException {
        out.writeUTF(query);
        out.writeInt(rc);
        if (rc >= 0) out.writeInt(count);
        return rc >= 0;
    }

    final boolean describeHead(Content content, int count) throws IOException {
        content.add(query);
        content.add(rc);
        if (rc >= 0) content.add(count);
        return rc >= 0;
    }

    @Override
    public void readExternal(ObjectInput in) {
        throw new UnsupportedOperationException();
    }
}

final class IdsReply extends Reply {
    private static final long serialVersionUID = 0x1122334455667788L;
    final List<String> ids;

    IdsReply(String query, int rc, List<String> ids) {
        super(query, rc);
        this.ids = ids;
    }

    @Override
    public void writeExternal(ObjectOutput out) throws IOException {
        if (!writeHead(out, ids.size())) return;
        for (String id : ids) out.writeUTF(id);
    }

    @Override
    void describe(Content content) throws IOException {
        if (!describeHead(content, ids.size())) return;
        for (String id : ids) content.add(id);
    }
}

final class StatsReply extends Reply {
    private static final long serialVersionUID = 0x1122334455667788L;
    final List<Stat> stats;

    StatsReply(String query, int rc, List<Stat> stats) {
        super(query, rc);
        this.stats = stats;
    }

    @Override
    public void writeExternal(ObjectOutput out) throws IOException {
        if (!writeHead(out, stats.size())) return;
        for (Stat stat : stats) out.writeObject(stat);
    }

    @Override
    void describe(Content content) throws IOException {
        if (!describeHead(content, stats.size())) return;
        for (Stat stat : stats) {
            content.add(stat.id);
            content.add(stat.value);
        }
    }
}

final class Stat implements Externalizable {
    private static final long serialVersionUID = 0x1122334455667788L;
    String id;
    String value;

    @Override
    public void writeExternal(ObjectOutput out) throws IOException {
        out.writeUTF(id);
        out.writeUTF(value);
    }

    @Override
    public void readExternal(ObjectInput in) {
        throw new UnsupportedOperationException();
    }
}
