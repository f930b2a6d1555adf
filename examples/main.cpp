// Two attribute trees kept equal by Loomy, both in this one process.
//
// Each side is what an application has: a Loomy::RemoteNode in its own tree, and a
// Loomy::BundleController for the peer. Here the two controllers are joined by an in-memory
// connection pair instead of a socket; everything else is as it would be between two processes.
//
// The frame loop. The application calls Tamarack::Node::runHostUpdate() once per frame. The
// first controller queues Loomy::updateAllControllers() on it, and that function queues itself
// again after every pass, for as long as sessions exist. One pass does, for each session: apply
// what the peer sent, then collect what changed in the local tree since the last pass and send
// it. So a value set between two frames leaves in the next pass and is applied on the other side
// in that pass or the one after (a session sends its own changes before it applies a batch from
// its peer, so a side that has something to apply sends early). Many sets of one value within a
// frame leave as one, with the value at sending time.
#include "loomy/bundle/LocalConnection.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/BinaryData.h"
#include "kestrel/Color.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "wisket/Vector.h"

#include <QStringList>

#include <cstdio>
#include <map>

using Tamarack::AttributeT;
using Tamarack::Node;

namespace {

struct Shown
{
    QByteArray type;
    QByteArray value;
};
using Snapshot = std::map<QByteArray, Shown>; // by path below the RemoteNode

// Every attribute below node, by its path of names joined by "/".
void collect(const Node &node, const QByteArray &prefix, Snapshot &out)
{
    for (const auto &child : node.attributes()) {
        const QByteArray path = prefix + child.first;
        if (auto *inner = dynamic_cast<const Node *>(child.second)) {
            collect(*inner, path + '/', out);
            continue;
        }
        // A string list's text form has one element per line; keep each row on one line.
        QByteArray value = child.second->asString().toUtf8().replace('\n', " | ");
        out[path] = {child.second->type(), value};
    }
}

// Prints both trees side by side, one row per path, and says whether they are equal.
bool printTrees(const Node &left, const Node &right)
{
    Snapshot mine, theirs;
    collect(left, "", mine);
    collect(right, "", theirs);
    Snapshot all = mine;
    all.insert(theirs.begin(), theirs.end());

    std::printf("   %-22s %-15s %-26s %-15s %s\n", "path", "left type", "left value", "right type", "right value");
    bool equal = true;
    for (const auto &row : all) {
        const auto l = mine.find(row.first);
        const auto r = theirs.find(row.first);
        const bool same = l != mine.end() && r != theirs.end() && l->second.type == r->second.type
                          && l->second.value == r->second.value;
        equal = equal && same;
        const auto cell = [](const Snapshot &side, Snapshot::const_iterator at, bool type) {
            return at == side.end() ? "-" : (type ? at->second.type : at->second.value).constData();
        };
        std::printf(" %c %-22s %-15s %-26s %-15s %s\n", same ? ' ' : '*', row.first.constData(),
                    cell(mine, l, true), cell(mine, l, false), cell(theirs, r, true), cell(theirs, r, false));
    }
    std::printf("   trees equal: %s\n", equal ? "yes" : "no (rows marked *)");
    return equal;
}

int s_frames = 0;

// One frame of the application: the host update, which runs both sessions once, then a look at
// both trees. What the sessions report during the pass shows under the frame's title.
bool frame(const Node &left, const Node &right)
{
    std::printf("\n== frame %d\n", ++s_frames);
    Node::runHostUpdate();
    return printTrees(left, right);
}

void step(const char *what)
{
    std::printf("\n-- %s\n", what);
}

} // namespace

int main()
{
    // Two applications, each with its own root; the RemoteNode marks the subtree to share.
    Node leftApp;
    Node rightApp;
    auto *left = new Loomy::RemoteNode(&leftApp, "shared");
    auto *right = new Loomy::RemoteNode(&rightApp, "shared");

    // The left side's content, made before the session exists: it all goes out as the initial
    // state in the first frame. addDeepAttribute makes the nodes on the way.
    auto *speed = new AttributeT<float>(left, "speed", 1.5f);
    new AttributeT<int>(left, "count", 3);
    auto *title = new AttributeT<QString>(left, "title", "hello");
    auto *position = new AttributeT<Wisket::Vector3f>;
    left->addDeepAttribute("scene/camera/position", position);
    position->setValue(Wisket::Vector3f(0.f, 1.f, 5.f));
    auto *tint = new AttributeT<Kestrel::Color>;
    left->addDeepAttribute("scene/light/tint", tint);
    tint->setValue(Kestrel::Color(1.f, 0.8f, 0.6f, 1.f));
    new AttributeT<QStringList>(left, "tags", QStringList{"red", "round"});

    // One session per side. The right side starts empty and makes what the left announces.
    // Received events go to the node as usual; the handler only shows them on the way.
    Loomy::BundleControllerParams leftParams;
    Loomy::BundleControllerParams rightParams;
    rightParams.createMissingAttributes = true;
    rightParams.eventHandler = [right](const QByteArray &name, Kestrel::BinaryData &data) {
        QString text;
        data.readString(text);
        data.rewind();
        std::printf("   right received event \"%s\"%s%s\n", name.constData(), text.isEmpty() ? "" : ": ",
                    qPrintable(text));
        right->handleRemoteEvent(name, data, 0);
    };
    Loomy::LocalSessionPair sessions = Loomy::connectLocally(*left, leftParams, *right, rightParams);

    // The initial state goes out in the first pass, after a handshake, and is applied in the
    // second.
    step("joined; the left side's tree is its initial state");
    frame(*left, *right);
    frame(*left, *right);

    // Several sets of one value in one frame: only the last travels. An attribute added now is
    // announced to the right, which makes its own copy.
    step("left: speed 2.0 then 2.5, a new title, a new attribute scene/camera/exposure");
    speed->setValue(2.0f);
    speed->setValue(2.5f);
    title->setValue("hello, world");
    auto *exposure = new AttributeT<float>;
    left->addDeepAttribute("scene/camera/exposure", exposure);
    exposure->setValue(0.7f);
    frame(*left, *right);
    frame(*left, *right);

    // The other way: the right side's copies are ordinary attributes of its tree.
    step("right: count 4, one more tag");
    static_cast<AttributeT<int> *>(right->attribute("count"))->setValue(4);
    static_cast<AttributeT<QStringList> *>(right->attribute("tags"))->setValue({"red", "round", "shiny"});
    frame(*left, *right);
    frame(*left, *right);

    // Removing exposure on the left removes the copy that was made for it on the right; had the
    // right removed its copy, the left's own attribute would have stayed.
    step("left: exposure removed, a new tint, an event \"greet\"");
    delete exposure;
    tint->setValue(Kestrel::Color(0.2f, 0.4f, 1.f, 1.f));
    Kestrel::BinaryData greeting;
    greeting.writeString("hi from the left");
    left->eventProcess("greet", greeting);
    frame(*left, *right);
    const bool equal = frame(*left, *right);

    // Controllers go first; the next pass releases their sessions while both trees still stand.
    sessions = Loomy::LocalSessionPair();
    Node::runHostUpdate();
    std::printf("\nAfter %d frames the two trees are %s.\n", s_frames, equal ? "equal" : "NOT equal");
    return equal ? 0 : 1;
}
