package com.kro.zeb.sim;

import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.Externalizable;
import java.io.IOException;
import java.io.ObjectInput;
import java.io.ObjectOutput;
import java.io.ObjectOutputStream;
import java.util.concurrent.Callable;

/**
 * Reads the descriptions of answers from standard input and writes each answer as a gateway does,
 * after its length. The JDK's own serialiser writes the objects, so that it decides where block
 * data are cut.
 *
 * <p>A description: whether the answer has statistics, whether it is a list, the number of
 * responses, and the responses: query element, code, number of items, and the items.
 */
public final class Serialise {
    public static void main(String[] arguments) throws Exception {
        DataInputStream in = new DataInputStream(new BufferedInputStream(System.in, 1 << 16));
        try (DataOutputStream out = new DataOutputStream(new BufferedOutputStream(System.out, 1 << 16))) {
            for (int isStats = in.read(); isStats >= 0; isStats = in.read()) {
                ByteArrayOutputStream answer = new ByteArrayOutputStream();
                boolean isList = in.readBoolean();
                int responses = in.readInt();
                answer.write(isList ? 1 : 0);
                if (isList) new DataOutputStream(answer).writeInt(responses);
                for (int i = 0; i < responses; ++i) {
                    try (ObjectOutputStream objects = new ObjectOutputStream(answer)) {
                        objects.writeObject(isStats != 0 ? new StatsReply(in) : new IdsReply(in));
                    }
                }
                out.writeInt(answer.size());
                answer.writeTo(out);
            }
        }
    }
}

/** Not serialisable itself, so that the stream does not describe it. */
class Written {
    public void readExternal(ObjectInput in) {
        throw new UnsupportedOperationException();
    }
}

/** A response. If its code is negative, it has neither a count nor items. */
abstract class Reply extends Written implements Externalizable {
    private static final long serialVersionUID = 0x1122334455667788L;
    private final String query;
    private final int rc;
    private final Object[] items;

    Reply(DataInputStream in, Callable<Object> item) throws Exception {
        query = in.readUTF();
        rc = in.readInt();
        items = new Object[in.readInt()];
        for (int i = 0; i < items.length; ++i) items[i] = item.call();
    }

    public void writeExternal(ObjectOutput out) throws IOException {
        out.writeUTF(query);
        out.writeInt(rc);
        if (rc < 0) return;
        out.writeInt(items.length);
        for (Object item : items) {
            if (item instanceof String) out.writeUTF((String) item);
            else out.writeObject(item);
        }
    }
}

final class IdsReply extends Reply {
    private static final long serialVersionUID = 0x1122334455667788L;

    IdsReply(DataInputStream in) throws Exception {
        super(in, in::readUTF);
    }
}

final class StatsReply extends Reply {
    private static final long serialVersionUID = 0x1122334455667788L;

    StatsReply(DataInputStream in) throws Exception {
        super(in, () -> new Stat(in.readUTF(), in.readUTF()));
    }
}

final class Stat extends Written implements Externalizable {
    private static final long serialVersionUID = 0x1122334455667788L;
    private final String id;
    private final String value;

    Stat(String id, String value) {
        this.id = id;
        this.value = value;
    }

    public void writeExternal(ObjectOutput out) throws IOException {
        out.writeUTF(id);
        out.writeUTF(value);
    }
}
