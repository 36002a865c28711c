#include "contentedit.h"
#include "objecttree.h"

#include <testtable.h>

#include <random>
#include <set>

using namespace bus;

namespace
{

/// "a=1 b" changes a and b, "-a" removes a.
ObjectChanges changesOf(const QString &text)
{
    ObjectChanges changes;
    for (const QString &part : text.split(' ', Qt::SkipEmptyParts)) {
        const QString name = part.section('=', 0, 0);
        if (name.startsWith('-')) {
            changes[name.mid(1)] = std::nullopt;
            continue;
        }
        TrelanObject object {TrelanTimestamp(1)};
        object.setContent({{"v", part.section('=', 1)}});
        changes[name] = object;
    }
    return changes;
}

/// Notes what it is told, and keeps rows of its own, as a view does.
class Mirror : public ObjectTree::Listener
{
public:
    struct Row
    {
        std::vector<Row> children;
    };
    QStringList told;
    Row root;

    void aboutToInsert(const ObjectNode &parent, int first, int last) override
    {
        note("insert", parent, first, last);
        auto &rows = rowOf(parent).children;
        rows.insert(rows.begin() + first, size_t(last) + 1 - size_t(first), Row());
        _under = &parent;
        _first = first;
        _last = last;
    }
    void inserted() override
    {
        // What hangs below a new row comes with it.
        for (int row = _first; row <= _last; ++row)
            fill(*_under->children[size_t(row)], rowOf(*_under).children[size_t(row)]);
    }
    void aboutToRemove(const ObjectNode &parent, int first, int last) override
    {
        note("remove", parent, first, last);
        auto &rows = rowOf(parent).children;
        rows.erase(rows.begin() + first, rows.begin() + last + 1);
    }
    void removed() override {}
    void changed(const ObjectNode &parent, int first, int last, ObjectTree::Fields fields) override
    {
        note(fields & ObjectTree::Presence  ? "appear"
             : fields & ObjectTree::Content ? "change"
                                            : "touch",
             parent, first, last);
    }

private:
    void note(const QString &what, const ObjectNode &parent, int first, int last)
    {
        told << QString("%1 %2/%3-%4").arg(what, ObjectTree::nameOf(parent)).arg(first).arg(last);
    }
    Row &rowOf(const ObjectNode &node)
    {
        if (!node.parent)
            return root;
        return rowOf(*node.parent).children[size_t(ObjectTree::rowOf(node))];
    }
    static void fill(const ObjectNode &node, Row &row)
    {
        row.children.resize(node.children.size());
        for (size_t i = 0; i < node.children.size(); ++i)
            fill(*node.children[i], row.children[i]);
    }

    const ObjectNode *_under = nullptr;
    int _first = 0, _last = 0;
};

/// The names of all objects below, in the order of the rows, and whether \a rows are as many.
QStringList namesBelow(const ObjectNode &node, const Mirror::Row &row)
{
    QStringList names;
    if (node.children.size() != row.children.size())
        names << "other rows under " + ObjectTree::nameOf(node);
    for (size_t i = 0; i < qMin(node.children.size(), row.children.size()); ++i) {
        const ObjectNode &child = *node.children[i];
        if (child.object)
            names << ObjectTree::nameOf(child);
        else if (child.children.empty())
            names << "empty row " + ObjectTree::nameOf(child);
        names << namesBelow(child, row.children[i]);
    }
    return names;
}

} // namespace

class tst_ObjectTree : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tells_data()
    {
        const TestTable<int, QString, QString, QString> row("shape", "before", "then", "told");
        const int flat = ObjectTree::Flat;
        const int tree = ObjectTree::Tree;
        row("first rows at once", flat, "", "b a c.d", "insert /0-2");
        row("rows in between", flat, "b d", "a c e f", "insert /0-0, insert /2-2, insert /4-5");
        row("a dot before all else", flat, "a-b", "a a.b", "insert /0-1");
        row("what stands together", flat, "a b c e", "a=1 b=1 c=1 e=1", "change /0-3");
        row("not what stands between", flat, "a b c", "a=1 c=1", "change /0-0, change /2-2");
        row("an equal value", flat, "a", "a", "touch /0-0");
        row("rows that go", flat, "a b c d e", "-a -c -d", "remove /2-3, remove /0-0");
        row("what was never there", flat, "a", "-b", "");
        row("change, go and come", flat, "b c d", "a b=1 -c",
            "change /0-0, remove /1-1, insert /0-0");
        row("a branch as one row", tree, "", "a.b.c a.b.d", "insert /0-0");
        row("into a branch", tree, "a.b a.d", "a.c a.e", "insert a/1-1, insert a/3-3");
        row("an object for a segment", tree, "a.b", "a", "appear /0-0");
        row("a segment that stays", tree, "a a.b", "-a", "appear /0-0");
        row("a segment that goes with its last", tree, "a.b c", "-a.b",
            "remove a/0-0, remove /0-0");
        row("both levels", tree, "a a.b", "a=1 a.b=1", "change a/0-0, change /0-0");
        row("no half names", tree, "ab.c", "a.c", "insert /0-0");
        row("come and gone", tree, "", "-a.b", "");
        row("empty segments", tree, "a", "a. .a", "insert a/0-0, insert /0-0");
    }
    void tells()
    {
        QFETCH(int, shape);
        QFETCH(QString, before);
        QFETCH(QString, then);
        Mirror mirror;
        ObjectTree tree(ObjectTree::Shape(shape), mirror);
        tree.apply(changesOf(before));
        mirror.told.clear();
        tree.apply(changesOf(then));
        QTEST(mirror.told.join(", "), "told");
        for (const auto &change : changesOf(before + " " + then)) {
            const ObjectNode *node = tree.find(change.first);
            QCOMPARE(node && node->object, change.second.has_value());
        }
    }

    void staysInStep_data()
    {
        const TestTable<int> row("shape");
        row("flat", ObjectTree::Flat);
        row("tree", ObjectTree::Tree);
    }
    /// A view that believes what it is told has the right rows after any changes.
    void staysInStep()
    {
        QFETCH(int, shape);
        Mirror mirror;
        ObjectTree tree(ObjectTree::Shape(shape), mirror);
        std::set<QString, NameOrder> names;
        std::mt19937 random(1);
        const QString letters = "ab-.";
        for (int round = 0; round < 300; ++round) {
            ObjectChanges changes;
            for (int i = int(random() % 12); i >= 0; --i) {
                QString name;
                for (int length = int(1 + random() % 6); length > 0; --length)
                    name += letters[int(random() % 4)];
                const bool isRemoval = random() % 5 < 2;
                changes[name] = isRemoval ? std::nullopt : std::optional(TrelanObject());
            }
            for (const auto &change : changes) {
                if (change.second)
                    names.insert(change.first);
                else
                    names.erase(change.first);
            }
            tree.apply(changes);
            QCOMPARE(namesBelow(tree.root(), mirror.root), QStringList(names.begin(), names.end()));
        }
    }

    void edits_data()
    {
        const TestTable<QVariant, QVariant, QVariant> row("old", "edited", "value");
        row("number", 21.5, 22.0, 22.0);
        row("whole number to fraction", 21, "21.5", 21.5);
        row("large number", 1LL, "9007199254740993", 9007199254740993LL);
        row("no number", 21.5, "warm", {});
        row("text that looks like a number", "a", "21", "21");
        row("truth value", true, "false", false);
        row("no truth value", true, "1", {});
        row("list", QVariantList {1}, R"(["a", 2])", QVariantList {"a", 2LL});
        row("two values", QVariantList {1}, R"([1], [2])", {});
        row("map for list", QVariantList {1}, "{}", {});
        row("where nothing was", {}, "x", "x");
        row("a number where nothing was", {}, "21.5", 21.5);
    }
    void edits()
    {
        QFETCH(QVariant, old);
        QFETCH(QVariant, edited);
        QFETCH(QVariant, value);
        const QVariant made = edit::fromCell(edited, old).value_or(QVariant());
        QCOMPARE(made, value);
        QCOMPARE(made.userType(), value.userType()); // else a number equals its text
    }
    void keepsDigits()
    {
        const QVariantMap content {{"n", 1700000000123456789LL}, {"l", QVariantList {1, "a"}}};
        QCOMPARE(edit::toText(content), R"({"l":[1,"a"],"n":1700000000123456789})");
        QCOMPARE(edit::toCell(content["l"]), R"([1,"a"])");
        QCOMPARE(edit::fromText(edit::toText(content))->value("n"), content["n"]);
        QVERIFY(!edit::fromText("[1]"));
    }
};

QTEST_GUILESS_MAIN(tst_ObjectTree)

#include "tst_objecttree.moc"
