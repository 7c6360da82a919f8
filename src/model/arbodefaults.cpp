#include "model/arbodefaults.h"

#include "model/arbo.h"
#include "model/arboball.h"

#include <QList>
#include <QString>

namespace {

struct PrimeColor
{
    int prime;
    int red, green, blue;
};

// Keys 0 and 1 are no primes; the display takes its greys from them.
const PrimeColor DEFAULT_COLORS[] = {
    {0, 183, 183, 183}, {1, 32, 32, 32},   {2, 91, 91, 91},    {3, 81, 115, 182}, {5, 156, 4, 4},
    {7, 40, 56, 208},   {11, 180, 97, 16}, {13, 113, 0, 113},  {17, 7, 116, 7},   {19, 153, 153, 0},
    {23, 0, 91, 91},    {29, 119, 92, 66}, {31, 42, 157, 123},
};

// The trunk of steps of 2 and 3. Every trunk node gets the leaves of the higher
// primes. The shape is uneven on purpose: /-2/-2 has no -3 branch.
const char* const DEFAULT_TRUNK[] = {
    "/-2",     "/-2/-2", "/-2/-2/3", "/-2/-2/3/3", "/-2/-3",      "/-2/3",
    "/-2/3/3", "/2",     "/2/-3",    "/2/-3/-3",   "/2/-3/-3/-3", "/2/3",
    "/2/3/3",  "/-3",    "/-3/-3",   "/-3/-3/-3",  "/3",          "/3/3",
};

// Octave links (all under prime 2), node to linked node. Also uneven on
// purpose: the /2 branch and the root link nowhere themselves.
const char* const DEFAULT_LINKS[][2] = {
    {"/-2/-2/3", "/-2/3"},  {"/-2/-2/3/3", "/-2/3/3"},    {"/-2/-3", "/-3"},
    {"/-2/3", "/3"},        {"/-2/3/3", "/3/3"},          {"/-3", "/2/-3"},
    {"/-3/-3", "/2/-3/-3"}, {"/-3/-3/-3", "/2/-3/-3/-3"}, {"/3", "/2/3"},
    {"/3/3", "/2/3/3"},
};

// The node at `path` below `root`, or null.
ArboBall* nodeAt(ArboBall* root, const ArboPath& path)
{
    ArboBall* node = root;
    for (int step : path.toList()) {
        if (!node) {
            break;
        }
        node = node->childAtPrime(step);
    }
    return node;
}

} // namespace

QMap<int, QColor> ArboDefaults::primeColors()
{
    QMap<int, QColor> colors;
    for (const PrimeColor& entry : DEFAULT_COLORS) {
        colors.insert(entry.prime, QColor(entry.red, entry.green, entry.blue, 255));
    }
    return colors;
}

void ArboDefaults::growTree(Arbo& lattice)
{
    ArboBall* root = lattice.root();
    QList<ArboBall*> trunk{root};
    for (const char* text : DEFAULT_TRUNK) {
        const ArboPath path(QString::fromLatin1(text));
        ArboPath parentPath = path;
        parentPath.removeLeaf();
        ArboBall* parent = nodeAt(root, parentPath);
        Q_ASSERT(parent); // the table lists every parent before its children
        const int step = path.toList().constLast();
        auto* node = new ArboBall(path, lattice.lookupColor(step), parent);
        parent->addChild(step, node);
        trunk.append(node);
    }
    for (ArboBall* node : qAsConst(trunk)) {
        lattice.addLeaves(node);
    }
    for (const auto& link : DEFAULT_LINKS) {
        ArboBall* node = nodeAt(root, ArboPath(QString::fromLatin1(link[0])));
        Q_ASSERT(node);
        node->addLink(2, QString::fromLatin1(link[1]));
    }
}
