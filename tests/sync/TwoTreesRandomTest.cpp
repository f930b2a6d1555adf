// Two trees joined in one process and driven by random work from fixed seeds: additions of many
// value types at nested paths, changes, removals of attributes and of whole nodes, aliases moved
// from one target to another, and events. After every settled frame both trees are compared.
//
// Only one side works in a frame, and the sessions settle (every batch and every answer has
// crossed, and nothing more moves) before the other side works, so no two writes of one attribute
// cross. Each path of a synchronised value is then in one of these states:
//   Owned(X)   X made it and the other side's copy was made for X: both have it, values equal.
//   Shared     both had it on their own account when they met: both have it. The values may
//              differ until either side changes it, since the two first announcements cross.
//   Held(X)    only X has it: the other side removed its copy, and until that side announces the
//              path again, X's changes and removals of it don't travel.
//   Dead       neither has it.
// Without createMissingAttributes an addition leaves only its name on the other side:
//   Only(X)    only X has it; the other side knows the name.
//   Joined(X)  the other side made it too, and its value went to X. That side keeps the
//              deserialiser that skipped X's announcement, so X's later changes don't reach it.
// A removal by X turns Owned(X), Joined(X) and Held(X) into Dead, taking a copy made for X with it,
// Only(X) into Dead (the other side logs the removal it can't apply: the one log line allowed),
// and Owned(Y), Joined(Y) or Shared into Held(Y): Y's own attribute stays. An addition by X gives
// Owned(X), or Only(X); so does an alias of X moved from one target to another, as its path goes
// and comes back. Paths named `id` never travel: each side has exactly the ones it made. A side
// keeps the last value it wrote unless the other side binds that path to another through an alias,
// and a copy made for the peer gets its value once. Events arrive once, in order, and on the
// other side only.
//
// What keeps these rules exact: a path changes structurally at most once per frame, unless it is
// new in that frame; a path that comes back keeps its type and gets a change behind its addition,
// and never on a side whose copy the peer took away (that side's announcement carries no value,
// and the peer's answer brings the type's default back); an own copy of a known name is made only
// in a node that the watcher has taken in and that was there when the name came; an alias points
// only at attributes its own side keeps, which no removal by the peer can take; a node is removed
// only if no alias inside it lacks a target. Runs of frames on one side with a single pass in
// between (changes and events only) let values in flight meet newer ones, which is where an echo
// shows.
#include "common/TraceCapture.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/LocalConnection.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/BinaryData.h"
#include "kestrel/Color.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeT.h"
#include "wisket/Vector.h"

#include <QMap>
#include <QRegExp>
#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;

namespace {

using Rng = std::mt19937;

unsigned below(Rng &rng, size_t n)
{
    return unsigned(rng() % n);
}

bool chance(Rng &rng, unsigned percent)
{
    return below(rng, 100) < percent;
}

// --- value types and random values ---

float randomFloat(Rng &rng)
{
    return float(int(below(rng, 41)) - 20) * 0.25f;
}
int randomInt(Rng &rng)
{
    return int(below(rng, 21)) - 10;
}
double randomDouble(Rng &rng)
{
    return (int(below(rng, 2001)) - 1000) * 0.125;
}
bool randomBool(Rng &rng)
{
    return chance(rng, 50);
}
QString randomText(Rng &rng)
{
    static const char *const pool[] = {"", "a", "hello", "gr\xc3\xbc\xc3\x9f" "e", "x/y", "a longer piece of text"};
    QString text = QString::fromUtf8(pool[below(rng, 6)]);
    if (chance(rng, 50))
        text += QString::number(below(rng, 100));
    return text;
}
QStringList randomTextList(Rng &rng)
{
    QStringList list;
    for (unsigned n = below(rng, 4); n > 0; --n)
        list << randomText(rng);
    return list;
}
Wisket::Vector3f randomVector(Rng &rng)
{
    return {randomFloat(rng), randomFloat(rng), randomFloat(rng)};
}
Kestrel::Color randomColor(Rng &rng)
{
    return Kestrel::Color{below(rng, 9) / 8.f, below(rng, 9) / 8.f, below(rng, 9) / 8.f, below(rng, 9) / 8.f};
}
std::vector<float> randomFloats(Rng &rng)
{
    std::vector<float> values(below(rng, 5));
    for (float &value : values)
        value = randomFloat(rng);
    return values;
}

struct ValueType
{
    const char *prefix;       // of the names of new attributes of this type
    std::function<bool(Attribute *)> is;
    std::function<Attribute *(Node *, const QByteArray &, Rng &)> make;
    std::function<void(Attribute *, Rng &)> set;
};

template <typename T>
ValueType plainType(const char *prefix, T (*random)(Rng &))
{
    using A = Tamarack::AttributeT<T>;
    return {prefix, [](Attribute *a) { return dynamic_cast<A *>(a) != nullptr; },
            [random](Node *host, const QByteArray &name, Rng &rng) -> Attribute * { return new A(host, name, random(rng)); },
            [random](Attribute *a, Rng &rng) { static_cast<A *>(a)->setValue(random(rng)); }};
}

using FloatList = Tamarack::AttributeContainer<std::vector<float>>;

const std::vector<ValueType> &valueTypes()
{
    static const std::vector<ValueType> types = {
        plainType<float>("f", randomFloat),
        plainType<int>("i", randomInt),
        plainType<double>("d", randomDouble),
        plainType<bool>("b", randomBool),
        plainType<QString>("s", randomText),
        plainType<QStringList>("l", randomTextList),
        plainType<Wisket::Vector3f>("v", randomVector),
        plainType<Kestrel::Color>("c", randomColor),
        {"fl", [](Attribute *a) { return dynamic_cast<FloatList *>(a) != nullptr; },
         [](Node *host, const QByteArray &name, Rng &rng) -> Attribute * {
             auto *list = new FloatList(host, name);
             list->set(randomFloats(rng));
             return list;
         },
         [](Attribute *a, Rng &rng) { static_cast<FloatList *>(a)->set(randomFloats(rng)); }},
    };
    return types;
}

int typeOf(Attribute *attribute)
{
    for (size_t i = 0; i < valueTypes().size(); ++i)
        if (valueTypes()[i].is(attribute))
            return int(i);
    return -1;
}

int typeOf(const ValueType *type)
{
    return int(type - valueTypes().data());
}

// The value as a session writes it.
struct Wire
{
    unsigned typeId = 0;
    QByteArray bytes;
};

Wire wireOf(Attribute *attribute)
{
    static const Loomy::TypeRegistry registry;
    Wire wire;
    unsigned size = 0;
    if (const Loomy::Serializer serializer = registry.createSerializer(attribute, wire.typeId, size)) {
        Loomy::BundleWriterCore writer(wire.bytes);
        serializer(writer);
    }
    return wire;
}

std::string describe(Attribute *attribute)
{
    const Wire wire = wireOf(attribute);
    return "type " + std::to_string(wire.typeId) + " <" + attribute->asString().toStdString() + "> [" +
           wire.bytes.toHex(' ').toStdString() + "]";
}

// --- paths ---

QByteArray childPath(const QByteArray &parent, const QByteArray &name)
{
    return parent.isEmpty() ? name : parent + '/' + name;
}

bool isIdPath(const QByteArray &path)
{
    return path == "id" || path.endsWith("/id");
}

int depth(const QByteArray &path)
{
    return path.isEmpty() ? 0 : path.count('/') + 1;
}

QByteArray parentOf(const QByteArray &path)
{
    return path.left(std::max(0, path.lastIndexOf('/')));
}

// The attribute at the path itself, aliases not followed; null if any piece is missing.
Attribute *lookup(Node &root, const QByteArray &path)
{
    Attribute *current = &root;
    for (const QByteArray &piece : path.split('/')) {
        auto *node = dynamic_cast<Node *>(current);
        current = node ? node->attribute(piece) : nullptr;
        if (!current)
            return nullptr;
    }
    return current;
}

Attribute *resolve(Attribute *attribute)
{
    while (auto *alias = dynamic_cast<AttributeAlias *>(attribute))
        attribute = alias->attribute();
    return attribute;
}

struct TreeView
{
    std::map<QByteArray, Attribute *> values;                // every present value, aliases resolved
    std::vector<std::pair<QByteArray, Attribute *>> plain;   // value attributes that are not aliases
    std::vector<std::pair<QByteArray, Node *>> nodes;        // below the root
    std::vector<QByteArray> everything;                      // every attribute that is not a node
};

void walk(Node &node, const QByteArray &path, TreeView &view)
{
    for (const auto &entry : node.attributes()) {
        Attribute *attribute = entry.second;
        if (!attribute)
            continue;
        const QByteArray child = childPath(path, entry.first);
        if (auto *inner = dynamic_cast<Node *>(attribute)) {
            view.nodes.emplace_back(child, inner);
            walk(*inner, child, view);
            continue;
        }
        view.everything.push_back(child);
        if (dynamic_cast<AttributeAlias *>(attribute)) {
            if (Attribute *target = resolve(attribute))
                view.values[child] = target;
        } else {
            view.values[child] = attribute;
            view.plain.emplace_back(child, attribute);
        }
    }
}

// --- the model ---

enum Side { Left = 0, Right = 1 };

const char *sideName(int side)
{
    return side == Left ? "left" : "right";
}

struct PathState
{
    enum Kind { Dead, Owned, Shared, Held, Only, Joined } kind = Dead;
    int side = Left;              // the maker of Owned, Only and Joined, the holder of Held
    bool loose = false;           // Shared and Joined: the values may differ
    int type = -1;                // index in valueTypes(); a path that comes back keeps it
    bool stripped[2] = {false, false}; // Dead only: this side's copy was made for the peer and the peer took it
    // This side's record holds a removal by the peer that no announcement of the peer has undone
    // since: its own removals and changes of the path don't travel.
    bool gated[2] = {false, false};
    // Only: the other side had the parent node when the name arrived, so its record says that an
    // attribute it makes there later is made for the peer.
    bool peerHadNode = false;

    bool on(int s) const { return linked() || ((kind == Held || kind == Only) && side == s); }
    bool linked() const { return kind == Owned || kind == Shared || kind == Joined; }
    std::string name() const
    {
        switch (kind) {
        case Owned: return std::string("Owned(") + sideName(side) + ")";
        case Shared: return loose ? "Shared, values not yet settled" : "Shared";
        case Held: return std::string("Held(") + sideName(side) + ")";
        case Only: return std::string("Only(") + sideName(side) + ")";
        case Joined: return std::string("Joined(") + sideName(side) + (loose ? "), values not yet settled" : ")");
        case Dead: break;
        }
        return "Dead";
    }
};

// A path touched by additions, removals or retargeting in the present frame.
struct Touch
{
    bool startPresent;  // present on the acting side before the first touch
    bool fresh;         // new in this frame: any sequence nets out as an addition or nothing
    bool removed;       // went away at least once
    int type;           // index in valueTypes() of what was added
};

struct AliasInfo
{
    AttributeAlias *alias;
    QByteArray target;  // empty for none
    int type;           // index in valueTypes(); a new target has the same type
};

// A node that notes every event it receives from the other side, as "name:payload in hex".
class RecordingNode : public Loomy::RemoteNode
{
public:
    using RemoteNode::RemoteNode;

    void eventProcess(const QByteArray &name, Kestrel::BinaryData &data) override
    {
        if (handlingRemoteEvent(name, data))
            received << name + ':' + QByteArray(data.data(), int(data.total())).toHex();
        RemoteNode::eventProcess(name, data);
    }

    QList<QByteArray> received;
};

struct RunCase
{
    const char *name;
    unsigned seed;
    bool createMissingAttributes;
    bool dropStaleChanges;
};

void PrintTo(const RunCase &run, std::ostream *os)
{
    *os << run.name;
}

class TwoTreesRandomTest : public ::testing::TestWithParam<RunCase>
{
protected:
    static constexpr int Frames = 400;
    // An addition, its answer and a value the answer sets off need three passes; two more for slack.
    static constexpr int SettlePasses = 5;

    TwoTreesRandomTest()
        : m_rng(GetParam().seed)
    {
        for (int s : {Left, Right})
            side(s).eventAddListener("initialized", [this, s] { ++m_initialized[s]; });
        for (int s : {Left, Right})
            side(s).addAttributeChangeListener([this, s](const Loomy::NodeWatcher::Event &event) {
                if (event.type == Loomy::NodeWatcher::ATTRIBUTE_CHANGED)
                    m_heardChange[s].insert(side(s).symbols().name(event.symbol));
            });
    }

    ~TwoTreesRandomTest() override
    {
        m_sessions = Loomy::LocalSessionPair();
        // Lets the loop prune the flagged cores while both trees still stand.
        Node::runHostUpdate();
    }

    RecordingNode &side(int s) { return s == Left ? m_left : m_right; }
    unsigned below(size_t n) { return ::below(m_rng, n); }
    bool chance(unsigned percent) { return ::chance(m_rng, percent); }
    const ValueType &randomType() { return valueTypes()[below(valueTypes().size())]; }
    QByteArray freshName(const char *prefix) { return prefix + QByteArray::number(++m_counter); }
    void log(int s, const QByteArray &line) { m_ops << QByteArray(sideName(s)) + ": " + line; }

    TreeView view(int s)
    {
        TreeView result;
        walk(side(s), QByteArray(), result);
        return result;
    }

    static void passes(int count)
    {
        for (int i = 0; i < count; ++i)
            Node::runHostUpdate();
    }

    void join()
    {
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = GetParam().createMissingAttributes;
        params.dropStaleChanges = GetParam().dropStaleChanges;
        m_sessions = Loomy::connectLocally(m_left, params, m_right, params);
    }

    // --- what a side may do ---

    bool mayTouch(const QByteArray &path) const
    {
        auto it = m_touched.find(path);
        return it == m_touched.end() || it->second.fresh;
    }

    Touch &touch(const QByteArray &path, bool presentNow)
    {
        return m_touched.emplace(path, Touch{presentNow, false, false, -1}).first->second;
    }

    // Paths of the other side that an alias there binds to another value.
    bool coupledOn(int s, const QByteArray &path) const
    {
        for (const auto &entry : m_aliases[s])
            if (entry.first == path || entry.second.target == path)
                return true;
        return false;
    }

    // Values that no removal by the peer can take from side s: its own, and its `id`s.
    std::vector<std::pair<QByteArray, Attribute *>> keptTargets(int s, int type)
    {
        std::vector<std::pair<QByteArray, Attribute *>> result;
        for (const auto &entry : view(s).plain) {
            if (type >= 0 && typeOf(entry.second) != type)
                continue;
            auto touched = m_touched.find(entry.first);
            const PathState state = m_model.count(entry.first) ? m_model.at(entry.first) : PathState();
            const bool own = state.kind != PathState::Dead && state.kind != PathState::Shared && state.side == s;
            // Added in this frame, unless as this side's copy of the other side's name.
            const bool addedNow = touched != m_touched.end() && !touched->second.startPresent &&
                                  !(state.kind == PathState::Only && state.side != s);
            if (isIdPath(entry.first) || addedNow || own || state.kind == PathState::Shared)
                result.push_back(entry);
        }
        return result;
    }

    // An existing node, or a new one below it, at most three levels deep.
    std::pair<QByteArray, Node *> pickParent(int s)
    {
        std::vector<std::pair<QByteArray, Node *>> nodes = view(s).nodes;
        nodes.emplace_back(QByteArray(), &side(s));
        std::pair<QByteArray, Node *> parent = nodes[below(nodes.size())];
        if (depth(parent.first) < 3 && chance(30)) {
            const QByteArray name = "n" + QByteArray::number(below(4));
            Attribute *existing = parent.second->attribute(name);
            auto *child = existing ? dynamic_cast<Node *>(existing) : new Node(parent.second, name);
            if (child)
                parent = {childPath(parent.first, name), child};
            if (!existing)
                m_newNodes.insert(parent.first);
        }
        return parent;
    }

    void noteWritten(const QByteArray &path, Attribute *attribute, const QByteArray &before)
    {
        const QByteArray after = wireOf(attribute).bytes;
        m_written[path] = after;
        if (after != before)
            m_changed.insert(path);
    }

    void addValue(int s)
    {
        const std::pair<QByteArray, Node *> parent = pickParent(s);
        const ValueType &type = randomType();
        if (!parent.second->attribute("id") && chance(10)) {
            const QByteArray path = childPath(parent.first, "id");
            type.make(parent.second, "id", m_rng);
            m_ids[s].insert(path);
            log(s, "add " + path);
            return;
        }
        const QByteArray name = freshName(type.prefix);
        const QByteArray path = childPath(parent.first, name);
        m_touched[path] = Touch{false, true, false, typeOf(&type)};
        Attribute *attribute = type.make(parent.second, name, m_rng);
        log(s, "add " + path + " " + describe(attribute).c_str());
        if (chance(40)) {
            const QByteArray before = wireOf(attribute).bytes;
            type.set(attribute, m_rng);
            noteWritten(path, attribute, before);
            log(s, "  then set " + QByteArray(describe(attribute).c_str()));
        }
    }

    // A path that both sides have lost comes back, with its former type (another type would meet
    // the deserialiser the peer's announcement left behind) and a value written behind the addition.
    void addAgain(int s)
    {
        std::vector<QByteArray> candidates;
        for (const auto &entry : m_model)
            if (entry.second.kind == PathState::Dead && !entry.second.stripped[s] && !m_touched.count(entry.first) &&
                !lookup(m_left, entry.first) && !lookup(m_right, entry.first))
                candidates.push_back(entry.first);
        if (candidates.empty())
            return;
        addWithValue(s, candidates[below(candidates.size())], "add again ");
    }

    void addWithValue(int s, const QByteArray &path, const char *what)
    {
        QList<QByteArray> pieces = path.split('/');
        const QByteArray name = pieces.takeLast();
        QMap<QByteArray, Node *> created;
        Node *parent = Loomy::findOrCreateNode(pieces, &side(s), &created);
        ASSERT_NE(parent, nullptr) << path.constData();
        for (const QByteArray &node : created.keys())
            m_newNodes.insert(node);
        const ValueType &type = valueTypes()[size_t(m_model.at(path).type)];
        m_touched[path] = Touch{false, false, false, typeOf(&type)};
        Attribute *attribute = type.make(parent, name, m_rng);
        const QByteArray before = wireOf(attribute).bytes;
        for (int i = 0; i < 50 && wireOf(attribute).bytes == before; ++i)
            type.set(attribute, m_rng);
        noteWritten(path, attribute, before);
        log(s, what + path + " " + describe(attribute).c_str());
    }

    bool hasParent(int s, const QByteArray &path)
    {
        const QByteArray parent = parentOf(path);
        return parent.isEmpty() || dynamic_cast<Node *>(lookup(side(s), parent));
    }

    // Without createMissingAttributes: the side that only knows the name makes the attribute itself,
    // with a change behind the addition, so that its value goes along. Only in a node the watcher
    // has taken in already: in a node still waiting for the frame's update, the attribute has no
    // listener yet, its change raises nothing, and the addition then goes without the value.
    void addOwnCopy(int s)
    {
        std::vector<QByteArray> candidates;
        for (const auto &entry : m_model) {
            if (entry.second.kind == PathState::Only && entry.second.side != s && entry.second.peerHadNode &&
                !m_touched.count(entry.first) && !lookup(side(s), entry.first) && hasParent(s, entry.first) &&
                !m_newNodes.count(parentOf(entry.first)))
                candidates.push_back(entry.first);
        }
        if (candidates.empty())
            return;
        const QByteArray path = candidates[below(candidates.size())];
        addWithValue(s, path, "add own copy ");
    }

    // In a run of single-pass frames, only paths that no alias of the peer ties to another.
    void changeValue(int s, bool inRun)
    {
        std::vector<std::pair<QByteArray, Attribute *>> candidates;
        for (const auto &entry : view(s).plain)
            if (!inRun || !coupledOn(1 - s, entry.first))
                candidates.push_back(entry);
        if (candidates.empty())
            return;
        const std::pair<QByteArray, Attribute *> picked = candidates[below(candidates.size())];
        const int type = typeOf(picked.second);
        ASSERT_GE(type, 0) << picked.first.constData() << " has a class this test doesn't make";
        const QByteArray before = wireOf(picked.second).bytes;
        for (unsigned n = 1 + below(2); n > 0; --n)
            valueTypes()[size_t(type)].set(picked.second, m_rng);
        noteWritten(picked.first, picked.second, before);
        log(s, "set " + picked.first + " " + describe(picked.second).c_str());
    }

    // Deletes what `doomed` names (every attribute below a node, for a node) if the paths that
    // leave, the aliases left without a target among them, may be touched in this frame.
    bool mayRemove(int s, const std::vector<QByteArray> &doomed)
    {
        const std::set<QByteArray> going(doomed.begin(), doomed.end());
        std::vector<QByteArray> leaving;
        for (const QByteArray &path : doomed)
            if (!isIdPath(path) && resolve(lookup(side(s), path)))
                leaving.push_back(path);
        for (const auto &entry : m_aliases[s])
            if (!going.count(entry.first) && going.count(entry.second.target))
                leaving.push_back(entry.first);
        for (const QByteArray &path : leaving)
            if (!mayTouch(path))
                return false;
        for (const QByteArray &path : leaving)
            touch(path, true).removed = true;
        for (const QByteArray &path : doomed) {
            m_ids[s].erase(path);
            m_aliases[s].erase(path);
            m_written.erase(path);
        }
        for (auto &entry : m_aliases[s])
            if (going.count(entry.second.target))
                entry.second.target.clear();
        return true;
    }

    void removeAttribute(int s)
    {
        const std::vector<QByteArray> candidates = view(s).everything;
        if (candidates.empty())
            return;
        const QByteArray path = candidates[below(candidates.size())];
        if (!mayRemove(s, {path}))
            return;
        log(s, "remove " + path);
        delete lookup(side(s), path);
    }

    void removeNode(int s)
    {
        const std::vector<std::pair<QByteArray, Node *>> nodes = view(s).nodes;
        if (nodes.empty())
            return;
        const std::pair<QByteArray, Node *> picked = nodes[below(nodes.size())];
        TreeView inside;
        walk(*picked.second, picked.first, inside);
        // The watcher reports every alias inside a removed node as removed, also one without a
        // target whose addition it never reported; the peer, or this side's sender, then logs a
        // removal it can't place. Such nodes are left alone.
        for (const QByteArray &path : inside.everything) {
            auto alias = m_aliases[s].find(path);
            if (alias != m_aliases[s].end() && !alias->second.alias->attribute())
                return;
        }
        if (!mayRemove(s, inside.everything))
            return;
        log(s, "remove node " + picked.first + " with " + QByteArray::number(int(inside.everything.size())) +
                   " attributes");
        delete picked.second;
    }

    void addAlias(int s)
    {
        const std::vector<std::pair<QByteArray, Attribute *>> targets = keptTargets(s, -1);
        if (targets.empty())
            return;
        const std::pair<QByteArray, Attribute *> target = targets[below(targets.size())];
        const std::pair<QByteArray, Node *> parent = pickParent(s);
        const QByteArray name = freshName("q");
        const QByteArray path = childPath(parent.first, name);
        m_touched[path] = Touch{false, true, false, typeOf(target.second)};
        auto *alias = new AttributeAlias(parent.second, name, target.second);
        m_aliases[s][path] = AliasInfo{alias, target.first, typeOf(target.second)};
        log(s, "alias " + path + " -> " + target.first);
    }

    void retargetAlias(int s)
    {
        std::vector<QByteArray> candidates;
        for (const auto &entry : m_aliases[s])
            if (mayTouch(entry.first))
                candidates.push_back(entry.first);
        if (candidates.empty())
            return;
        const QByteArray path = candidates[below(candidates.size())];
        AliasInfo &info = m_aliases[s].at(path);
        std::vector<std::pair<QByteArray, Attribute *>> targets;
        for (const auto &target : keptTargets(s, info.type))
            if (target.first != info.target)
                targets.push_back(target);
        const bool hadTarget = info.alias->attribute() != nullptr;
        std::pair<QByteArray, Attribute *> next;
        if (!targets.empty() && !(hadTarget && chance(20)))
            next = targets[below(targets.size())];
        else if (!hadTarget)
            return;
        Touch &t = touch(path, hadTarget);
        t.removed = t.removed || hadTarget;
        info.alias->setAttribute(next.second);
        info.target = next.first;
        log(s, "retarget " + path + " -> " + (next.second ? next.first : QByteArray("(none)")));
    }

    void sendEvent(int s)
    {
        const QByteArray name = "ev." + QByteArray(1, char('a' + below(3)));
        QByteArray payload;
        for (unsigned n = below(25); n > 0; --n)
            payload += char(m_rng());
        Kestrel::BinaryData data;
        if (!payload.isEmpty())
            data.writeBlob(payload.constData(), payload.size());
        m_expectedEvents[1 - s] << name + ':' + QByteArray(data.data(), int(data.total())).toHex();
        if (!payload.isEmpty() && chance(30)) {
            const unsigned sliceSize = 1 + below(8);
            side(s).eventProcessSlice(name, data, sliceSize);
            log(s, "event " + name + " of " + QByteArray::number(payload.size()) + " bytes in slices of " +
                       QByteArray::number(sliceSize));
        } else {
            side(s).eventProcess(name, data);
            log(s, "event " + name + " of " + QByteArray::number(payload.size()) + " bytes");
        }
    }

    void frame(int s)
    {
        for (unsigned n = 1 + below(5); n > 0; --n) {
            const unsigned roll = below(100);
            if (roll < 24)
                addValue(s);
            else if (roll < 30 && (GetParam().createMissingAttributes || chance(50)))
                addAgain(s);
            else if (roll < 30)
                addOwnCopy(s); // a name that only the other side has an attribute for
            else if (roll < 60)
                changeValue(s, false);
            else if (roll < 73)
                removeAttribute(s);
            else if (roll < 76)
                removeNode(s);
            else if (roll < 83)
                addAlias(s);
            else if (roll < 92)
                retargetAlias(s);
            else
                sendEvent(s);
        }
    }

    void frameInRun(int s)
    {
        for (unsigned n = 1 + below(4); n > 0; --n) {
            if (chance(75))
                changeValue(s, true);
            else
                sendEvent(s);
        }
    }

    // --- the initial trees ---

    void buildInitialTrees()
    {
        std::vector<std::pair<QByteArray, int>> initial[2]; // paths and types each side makes alone
        for (int s : {Left, Right}) {
            for (int i = 0; i < 4; ++i) {
                const std::pair<QByteArray, Node *> parent = pickParent(s);
                const ValueType &type = randomType();
                const QByteArray name = freshName(type.prefix);
                type.make(parent.second, name, m_rng);
                initial[s].emplace_back(childPath(parent.first, name), typeOf(&type));
            }
            new Tamarack::AttributeT<float>(&side(s), "id", float(s));
            m_ids[s].insert("id");
        }
        for (int i = 0; i < 2; ++i) {
            const ValueType &type = randomType();
            const QByteArray name = freshName(type.prefix);
            for (int s : {Left, Right})
                type.make(Loomy::findOrCreateNode({"n0"}, &side(s), nullptr), name, m_rng);
            m_model["n0/" + name] = PathState{PathState::Shared, Left, true, typeOf(&type)};
        }
        const std::vector<std::pair<QByteArray, Attribute *>> targets = keptTargets(Left, -1);
        const std::pair<QByteArray, Attribute *> target = targets[below(targets.size())];
        const QByteArray path = freshName("q");
        auto *alias = new AttributeAlias(&m_left, path, target.second);
        m_aliases[Left][path] = AliasInfo{alias, target.first, typeOf(target.second)};
        initial[Left].emplace_back(path, typeOf(target.second));
        for (int s : {Left, Right})
            for (const auto &entry : initial[s])
                announce(s, entry.first, entry.second);
    }

    // --- the rules ---

    // An announcement by side s: a copy on the other side, which answers with its own, or only
    // the name there.
    void announce(int s, const QByteArray &path, int type)
    {
        PathState &state = m_model[path];
        state.type = type;
        state.side = s;
        state.loose = false;
        state.stripped[Left] = state.stripped[Right] = false;
        state.gated[1 - s] = false;
        if (GetParam().createMissingAttributes) {
            state.kind = PathState::Owned;
            state.gated[s] = false;
        } else {
            state.kind = PathState::Only;
            state.peerHadNode = hasParent(1 - s, path);
        }
    }

    std::string modelError(const char *what, int s, const QByteArray &path, const PathState &state) const
    {
        return std::string("the model has no ") + what + " by the " + sideName(s) + " side of '" + path.toStdString() +
               "' in state " + state.name();
    }

    std::string removedBy(int s, const QByteArray &path)
    {
        PathState &state = m_model[path];
        const PathState before = state;
        const int other = 1 - s;
        state.loose = false;
        if (!before.on(s) || (before.gated[s] && before.linked()) || (before.kind == PathState::Held && !before.gated[s]))
            return modelError("removal", s, path, before);
        if (before.gated[s]) {
            state.kind = PathState::Dead; // nothing travels
        } else if (before.kind == PathState::Only) {
            // The other side knows the name but has no attribute: it logs the removal it can't apply.
            state.kind = PathState::Dead;
            ++m_removalsOfMissing;
        } else if (before.kind != PathState::Shared && before.side == s) {
            state.kind = PathState::Dead; // the copy made for this side goes with it
            state.stripped[other] = state.gated[other] = true;
        } else {
            state.kind = PathState::Held; // the other side's own attribute stays
            state.side = other;
            state.gated[other] = true;
        }
        return std::string();
    }

    // again: the path went and came back within the frame, an alias moved to another target.
    std::string addedBy(int s, const QByteArray &path, bool again)
    {
        PathState &state = m_model[path];
        const PathState before = state;
        const int type = typeOf(resolve(lookup(side(s), path)));
        if (again) {
            if (!before.on(s) || before.kind == PathState::Shared || before.side != s)
                return modelError("return", s, path, before);
            // The removal travels unless gated; the other side has no attribute for an Only name.
            if (!before.gated[s] && before.kind == PathState::Only)
                ++m_removalsOfMissing;
            announce(s, path, type);
        } else if (before.kind == PathState::Dead) {
            announce(s, path, type);
        } else if (before.kind == PathState::Only && before.side != s) {
            state.kind = PathState::Joined;
            state.gated[before.side] = false;
        } else {
            return modelError("addition", s, path, before);
        }
        return std::string();
    }

    // Turns what the acting side did to each touched path into the state the rules give it.
    std::string applyTouches(int s)
    {
        for (const auto &entry : m_touched) {
            const QByteArray &path = entry.first;
            const Touch &t = entry.second;
            const bool present = resolve(lookup(side(s), path)) != nullptr;
            std::string problem;
            if (!t.startPresent && !present && t.fresh)
                m_model[path].type = t.type; // came and went unseen
            else if (t.startPresent && !present)
                problem = removedBy(s, path), ++m_removals;
            else if (!t.startPresent && present)
                problem = addedBy(s, path, false), ++m_additions;
            else if (t.startPresent && t.removed)
                problem = addedBy(s, path, true), ++m_returns;
            if (!problem.empty())
                return problem;
            if (present && m_model.at(path).kind == PathState::Owned)
                m_arrived.push_back(path);
        }
        for (const QByteArray &path : m_changed) {
            auto it = m_model.find(path);
            if (it != m_model.end() && it->second.kind == PathState::Shared)
                it->second.loose = false;
            else if (it != m_model.end() && it->second.kind == PathState::Joined)
                it->second.loose = it->second.side == s;
        }
        // An alias of the maker can move a Joined value along with another path at any time, and
        // that change doesn't reach the other side either.
        for (auto &entry : m_model)
            if (entry.second.kind == PathState::Joined && coupledOn(entry.second.side, entry.first))
                entry.second.loose = true;
        return std::string();
    }

    // --- the checks ---

    std::string compareTrees()
    {
        const TreeView views[2] = {view(Left), view(Right)};
        std::set<QByteArray> paths(m_ids[Left].begin(), m_ids[Left].end());
        paths.insert(m_ids[Right].begin(), m_ids[Right].end());
        for (const auto &entry : m_model)
            paths.insert(entry.first);
        for (const TreeView &v : views)
            for (const auto &entry : v.values)
                paths.insert(entry.first);

        for (const QByteArray &path : paths) {
            const bool id = isIdPath(path);
            const PathState state = m_model.count(path) ? m_model.at(path) : PathState();
            bool wanted[2], found[2];
            for (int s : {Left, Right}) {
                wanted[s] = id ? m_ids[s].count(path) > 0 : state.on(s);
                found[s] = views[s].values.count(path) > 0;
            }
            if (wanted[Left] != found[Left] || wanted[Right] != found[Right]) {
                auto yesNo = [](bool b) { return b ? "yes" : "no"; };
                return "'" + path.toStdString() + "' (" + (id ? std::string("local id") : state.name()) +
                       "): expected on left " + yesNo(wanted[Left]) + ", right " + yesNo(wanted[Right]) +
                       "; found on left " + yesNo(found[Left]) + ", right " + yesNo(found[Right]) +
                       (found[Left] ? "\n  left: " + describe(views[Left].values.at(path)) : std::string()) +
                       (found[Right] ? "\n  right: " + describe(views[Right].values.at(path)) : std::string());
            }
            if (id || !state.linked() || state.loose)
                continue;
            Attribute *left = views[Left].values.at(path);
            Attribute *right = views[Right].values.at(path);
            const Wire l = wireOf(left), r = wireOf(right);
            if (l.typeId != r.typeId || l.bytes != r.bytes)
                return "'" + path.toStdString() + "' (" + state.name() + ") differs:\n  left:  " + describe(left) +
                       "\n  right: " + describe(right);
        }
        return std::string();
    }

    // A copy made for the peer takes its value from the announcement; a change heard on it means
    // the value came a second time. Not so where an alias of the maker ties the path to another:
    // an answer that carries a value back lands in the alias's target, and a container emits a
    // change even for an equal value.
    std::string arrivedOnce(int s)
    {
        for (const QByteArray &path : m_arrived)
            if (m_heardChange[1 - s].count(path) && !coupledOn(s, path))
                return "'" + path.toStdString() + "' arrived on the " + sideName(1 - s) +
                       " side with its addition, and its value was applied again";
        return std::string();
    }

    std::string writerKeptItsValues(int s)
    {
        for (const auto &entry : m_written) {
            Attribute *attribute = lookup(side(s), entry.first);
            if (!attribute || dynamic_cast<AttributeAlias *>(attribute) || coupledOn(1 - s, entry.first))
                continue;
            if (wireOf(attribute).bytes != entry.second)
                return "the " + std::string(sideName(s)) + " side wrote '" + entry.first.toStdString() + "' as [" +
                       entry.second.toHex(' ').toStdString() + "] and now holds " + describe(attribute);
        }
        return std::string();
    }

    std::string eventsArrived()
    {
        for (int s : {Left, Right}) {
            if (side(s).received == m_expectedEvents[s])
                continue;
            std::string text = "events on the " + std::string(sideName(s)) + " side:\n  expected:";
            for (const QByteArray &event : m_expectedEvents[s])
                text += " " + event.toStdString();
            text += "\n  received:";
            for (const QByteArray &event : side(s).received)
                text += " " + event.toStdString();
            return text;
        }
        return std::string();
    }

    unsigned long batches() const
    {
        return m_sessions.toFirst->batchesSent() + m_sessions.toSecond->batchesSent();
    }

    // Settles both sessions after side s worked (or after joining, for s -1), then checks
    // everything; empty when all holds.
    std::string settleAndCheck(int s)
    {
        passes(SettlePasses);
        const unsigned long settled = batches();
        passes(2);
        std::string problem;
        if (batches() != settled)
            problem = "still sending after " + std::to_string(SettlePasses) + " passes: " +
                      std::to_string(batches() - settled) + " more batches in 2 passes";
        if (problem.empty() && s >= 0)
            problem = applyTouches(s);
        if (problem.empty())
            problem = compareTrees();
        if (problem.empty() && s >= 0)
            problem = arrivedOnce(s);
        if (problem.empty() && s >= 0)
            problem = writerKeptItsValues(s);
        if (problem.empty())
            problem = eventsArrived();
        // Each removal that reaches a side without the attribute costs exactly one line there.
        QStringList lines = m_trace.lines(Kestrel::Trace::Level::Warning) + m_trace.lines(Kestrel::Trace::Level::Error);
        const QRegExp missing("AttributeRemoveHandler::handleBundle # Attribute \\d+ already removed");
        const int missingLines = lines.size();
        lines.erase(std::remove_if(lines.begin(), lines.end(), [&](const QString &l) { return missing.exactMatch(l); }),
                    lines.end());
        if (problem.empty() && missingLines - lines.size() != m_removalsOfMissing)
            problem = std::to_string(missingLines - lines.size()) + " removals reached a side without the attribute, expected " +
                      std::to_string(m_removalsOfMissing);
        if (problem.empty() && !lines.isEmpty())
            problem = "log lines:\n  " + lines.join("\n  ").toStdString();
        m_removalsOfMissing = 0;
        m_trace.clear();
        m_touched.clear();
        m_changed.clear();
        m_written.clear();
        m_newNodes.clear();
        m_arrived.clear();
        m_heardChange[Left].clear();
        m_heardChange[Right].clear();
        return problem;
    }

    std::string context(int frame) const
    {
        std::string text = "seed " + std::to_string(GetParam().seed) + ", createMissingAttributes " +
                           (GetParam().createMissingAttributes ? "on" : "off") + ", dropStaleChanges " +
                           (GetParam().dropStaleChanges ? "on" : "off") + ", frame " +
                           (frame < 0 ? std::string("(initial state)") : std::to_string(frame)) +
                           "; work since the last check:";
        for (const QByteArray &op : m_ops)
            text += "\n  " + op.toStdString();
        return text + "\n";
    }

    Rng m_rng;
    TraceCapture m_trace;
    // Filled by listeners on the two trees, so declared before them.
    std::set<QByteArray> m_heardChange[2];                // paths whose change each side's watcher raised
    int m_initialized[2] = {0, 0};
    Node m_leftApp;
    Node m_rightApp;
    RecordingNode &m_left = *new RecordingNode(&m_leftApp, "left");
    RecordingNode &m_right = *new RecordingNode(&m_rightApp, "right");
    Loomy::LocalSessionPair m_sessions;

    std::map<QByteArray, PathState> m_model;              // synchronised paths ever used
    std::set<QByteArray> m_ids[2];                        // the `id` paths each side has
    std::map<QByteArray, AliasInfo> m_aliases[2];         // every alias of each side
    QList<QByteArray> m_expectedEvents[2];                // what each side must have received
    unsigned m_counter = 0;                               // makes every new name unique
    int m_additions = 0, m_removals = 0, m_returns = 0;   // of synchronised paths, over the run

    // Since the last check.
    std::map<QByteArray, Touch> m_touched;
    std::set<QByteArray> m_changed;                       // values that really changed
    std::map<QByteArray, QByteArray> m_written;           // last value written by the acting side
    int m_removalsOfMissing = 0;
    std::set<QByteArray> m_newNodes;
    std::vector<QByteArray> m_arrived;                    // paths now Owned by the acting side
    QList<QByteArray> m_ops;
};

TEST_P(TwoTreesRandomTest, TreesAgreeAfterEverySettledFrame)
{
    buildInitialTrees();
    join();
    std::string problem = settleAndCheck(-1);
    if (!problem.empty())
        FAIL() << context(-1) << problem;

    int actor = Left;
    int runLeft = 0; // frames still to come in a run of single passes
    for (int f = 0; f < Frames; ++f) {
        if (runLeft == 0) {
            m_ops.clear();
            actor = int(below(2));
            if (chance(20))
                runLeft = 2 + int(below(3));
        }
        if (runLeft > 0) {
            frameInRun(actor);
            if (--runLeft > 0) {
                passes(1);
                continue;
            }
        } else {
            frame(actor);
        }
        if (HasFatalFailure())
            return;
        problem = settleAndCheck(actor);
        if (!problem.empty())
            FAIL() << context(f) << problem;
    }
    EXPECT_EQ(m_initialized[Left], 1);
    EXPECT_EQ(m_initialized[Right], 1);
    // The run did the work it claims: a run that did little would pass all too easily.
    EXPECT_GT(m_additions, 150);
    EXPECT_GT(m_removals, 80);
    EXPECT_GT(m_returns, 5);
    EXPECT_GT(m_sessions.toFirst->bundlesSent() + m_sessions.toSecond->bundlesSent(), 500u);
}

const RunCase s_runs[] = {
    {"Seed1", 1, true, false},
    {"Seed2", 2, true, false},
    {"Seed3DropStale", 3, true, true},
    {"Seed4DropStale", 4, true, true},
    {"Seed5OwnAdditionsOnly", 5, false, false},
    {"Seed6OwnAdditionsOnlyDropStale", 6, false, true},
};

INSTANTIATE_TEST_SUITE_P(Runs, TwoTreesRandomTest, ::testing::ValuesIn(s_runs),
                         [](const auto &info) { return std::string(info.param.name); });

// --- both sides at once ---

// Both sides write in the same frames, each in its own half of the paths (`a/...` only the left,
// `b/...` only the right): additions of every value type at nested paths, changes, removals, and
// removals with a re-addition in the same frame, often of another type. The frames run both sides
// in random order, or one side alone, sometimes for a run. No path has two writers, so no conflict
// rule may apply: once both go quiet, each half must be on both sides what its writer wrote. A few
// shared paths get random changes from both sides; after quiet frames a change by one side alone
// must reach the other. Numbered events, plain and sliced, go both ways.
struct WritersCase
{
    const char *name;
    unsigned seed;
    bool dropStaleChanges;
    bool leftRules; // the left side is authoritative, which must change nothing after first contact
};

void PrintTo(const WritersCase &run, std::ostream *os)
{
    *os << run.name;
}

class TwoWritersRandomTest : public ::testing::TestWithParam<WritersCase>
{
protected:
    static constexpr int Frames = 300;
    static constexpr int CheckEvery = 50;
    static constexpr int SettlePasses = 5;
    static constexpr int Shared = 3;

    TwoWritersRandomTest()
        : m_rng(GetParam().seed)
    {
        for (int s : {Left, Right}) {
            new Node(&side(s), half(s));
            for (int i = 0; i < Shared; ++i)
                side(s).addDeepAttribute(sharedPath(i), new Tamarack::AttributeT<float>(nullptr, "", 0.f));
        }
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = true;
        params.dropStaleChanges = GetParam().dropStaleChanges;
        Loomy::BundleControllerParams leftParams = params;
        leftParams.authoritative = GetParam().leftRules;
        m_sessions = Loomy::connectLocally(m_left, leftParams, m_right, params);
        passes(SettlePasses); // an event sent before the first pass has no session yet
    }

    ~TwoWritersRandomTest() override
    {
        m_sessions = Loomy::LocalSessionPair();
        Node::runHostUpdate();
    }

    static void passes(int count)
    {
        for (int i = 0; i < count; ++i)
            Node::runHostUpdate();
    }
    RecordingNode &side(int s) { return s == Left ? m_left : m_right; }
    static QByteArray half(int s) { return s == Left ? "a" : "b"; }
    static QByteArray sharedPath(int i) { return "shared/x" + QByteArray::number(i); }
    unsigned below(size_t n) { return ::below(m_rng, n); }

    // A new attribute of a random type at path, maybe changed again in the same frame.
    void make(int s, const QByteArray &path)
    {
        const ValueType &type = valueTypes()[below(valueTypes().size())];
        Attribute *attribute = type.make(nullptr, "", m_rng);
        ASSERT_TRUE(side(s).addDeepAttribute(path, attribute)) << path.constData();
        if (::chance(m_rng, 30))
            type.set(attribute, m_rng);
        m_written[s][path] = attribute;
    }

    void send(int s)
    {
        QList<QByteArray> &sent = m_sent[s];
        Kestrel::BinaryData data;
        for (unsigned n = 1 + below(3); n > 0; --n)
            data.writeInt32(int(sent.size()));
        const QByteArray name = ::chance(m_rng, 20) ? "sliced" : "plain";
        sent << name + ':' + QByteArray(data.data(), int(data.total())).toHex();
        if (name == "sliced")
            side(s).eventProcessSlice(name, data, 1 + below(8));
        else
            side(s).eventProcess(name, data);
    }

    // One random step of side s.
    void step(int s)
    {
        std::map<QByteArray, Attribute *> &mine = m_written[s];
        const unsigned what = below(20);
        auto picked = mine.begin();
        std::advance(picked, below(std::max<size_t>(mine.size(), 1)));
        if (what < 6 || mine.empty()) {
            QByteArray path = half(s);
            for (unsigned d = below(4); d > 0; --d)
                path += "/n" + QByteArray::number(below(3));
            make(s, path + "/v" + QByteArray::number(++m_counter));
        } else if (what < 11) {
            valueTypes()[size_t(typeOf(picked->second))].set(picked->second, m_rng);
        } else if (what < 13) {
            delete picked->second;
            mine.erase(picked);
            ++m_removals;
        } else if (what < 15) {
            const QByteArray path = picked->first;
            delete picked->second;
            make(s, path);
            ++m_returns;
        } else if (what < 18) {
            static_cast<Tamarack::AttributeT<float> *>(lookup(side(s), sharedPath(int(below(Shared)))))
                ->setValue(float(below(1000)));
        } else {
            send(s);
        }
    }

    // Empty when, after quiet passes, both sides hold each half as its writer left it, and each side
    // received the other's events once, in order.
    std::string check()
    {
        passes(SettlePasses);
        for (int writer : {Left, Right}) {
            std::map<QByteArray, Wire> wanted;
            for (const auto &entry : m_written[writer])
                wanted[entry.first] = wireOf(entry.second);
            for (int s : {Left, Right}) {
                TreeView v;
                walk(*static_cast<Node *>(lookup(side(s), half(writer))), half(writer), v);
                for (const auto &entry : v.values) {
                    auto it = wanted.find(entry.first);
                    if (it == wanted.end())
                        return "'" + entry.first.toStdString() + "' was removed by the " + sideName(writer) +
                               " side, yet the " + sideName(s) + " side holds " + describe(entry.second);
                    const Wire got = wireOf(entry.second);
                    if (got.typeId != it->second.typeId || got.bytes != it->second.bytes)
                        return "'" + entry.first.toStdString() + "' on the " + sideName(s) + " side is " +
                               describe(entry.second) + ", its writer on the " + sideName(writer) + " side has " +
                               describe(m_written[writer].at(entry.first));
                }
                if (v.values.size() != wanted.size())
                    return "the " + std::string(sideName(s)) + " side misses attributes of the " + sideName(writer) + " half";
            }
            if (side(1 - writer).received != m_sent[writer])
                return "events of the " + std::string(sideName(writer)) + " side:\n  sent:     " +
                       m_sent[writer].join(' ').toStdString() + "\n  received: " +
                       side(1 - writer).received.join(' ').toStdString();
        }
        // Crossing writes of the shared paths may have left the sides apart; one side's write
        // alone must bring the other along.
        for (int writer : {Left, Right}) {
            for (int i = 0; i < Shared; ++i)
                static_cast<Tamarack::AttributeT<float> *>(lookup(side(writer), sharedPath(i)))->setValue(float(1000 + ++m_counter));
            passes(SettlePasses);
            for (int i = 0; i < Shared; ++i) {
                const Wire l = wireOf(lookup(m_left, sharedPath(i))), r = wireOf(lookup(m_right, sharedPath(i)));
                if (l.bytes != r.bytes)
                    return sharedPath(i).toStdString() + " written by the " + sideName(writer) + " side alone: left " +
                           describe(lookup(m_left, sharedPath(i))) + ", right " + describe(lookup(m_right, sharedPath(i)));
            }
        }
        // A path re-added with another type meets the peer's old type: in the sender, which
        // rebuilds the deserialiser for it, and in the receiver, when the answer to the old
        // addition comes after the new one left. Both say so; the answer to the new addition
        // brings the right deserialiser.
        const QRegExp retyped("NodeChangeSender::sendAdded # Tried to recreate a deserializer but failed. Will set it to null deserializer|"
                              "NewAttributeReceiver::createDeserializer # Found an attribute that we don't know how to deserialize at '[ab]/.*'");
        QStringList lines = m_trace.lines(Kestrel::Trace::Level::Warning) + m_trace.lines(Kestrel::Trace::Level::Error);
        lines.erase(std::remove_if(lines.begin(), lines.end(), [&](const QString &l) { return retyped.exactMatch(l); }), lines.end());
        m_trace.clear();
        return lines.isEmpty() ? std::string() : "log lines:\n  " + lines.join("\n  ").toStdString();
    }

    Rng m_rng;
    TraceCapture m_trace;
    Node m_leftApp;
    Node m_rightApp;
    RecordingNode &m_left = *new RecordingNode(&m_leftApp, "left");
    RecordingNode &m_right = *new RecordingNode(&m_rightApp, "right");
    Loomy::LocalSessionPair m_sessions;
    std::map<QByteArray, Attribute *> m_written[2];   // each side's half: path to its attribute
    QList<QByteArray> m_sent[2];                       // events each side sent, as received
    unsigned m_counter = 0;
    int m_removals = 0, m_returns = 0;
};

TEST_P(TwoWritersRandomTest, EachHalfArrivesWholeAndEveryEventOnce)
{
    int alone = -1;   // the side of a run of frames alone, -1 for none
    int runLeft = 0;
    for (int f = 0; f < Frames; ++f) {
        if (runLeft == 0) {
            alone = ::chance(m_rng, 15) ? int(below(2)) : -1;
            runLeft = alone < 0 ? 1 : 2 + int(below(4));
        }
        --runLeft;
        // Outside a run: both sides in random order, or one of them alone.
        const int first = alone >= 0 ? alone : int(below(2));
        const int sides = alone >= 0 ? 1 : 1 + int(below(2));
        for (int s = first, i = 0; i < sides; s = 1 - s, ++i) {
            for (unsigned n = 1 + below(3); n > 0; --n)
                step(s);
            if (HasFatalFailure())
                return;
        }
        Node::runHostUpdate();
        if ((f + 1) % CheckEvery == 0) {
            const std::string problem = check();
            ASSERT_TRUE(problem.empty()) << "seed " << GetParam().seed << ", frame " << f << ": " << problem;
        }
    }
    // The run did the work it claims.
    EXPECT_GT(m_removals, 40);
    EXPECT_GT(m_returns, 40);
    EXPECT_GT(m_sent[Left].size() + m_sent[Right].size(), 40);
}

const WritersCase s_writers[] = {
    {"Seed1", 1, false, false},          {"Seed2", 2, false, false},          {"Seed3", 3, false, false},
    {"Seed1DropStale", 1, true, false},  {"Seed2DropStale", 2, true, false},  {"Seed3DropStale", 3, true, false},
    {"Seed4LeftRules", 4, false, true},  {"Seed4LeftRulesDropStale", 4, true, true},
};

INSTANTIATE_TEST_SUITE_P(Runs, TwoWritersRandomTest, ::testing::ValuesIn(s_writers),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
