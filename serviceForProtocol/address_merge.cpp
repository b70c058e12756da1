// Merging of address keys into read blocks (mode 1, monitored addresses) and
// recipe blocks (mode 2). Internal: the callers hold driver.serial.
//
// The keys are reduced once to small records in transfer units; sorting and
// both passes work on those, and only the emitted blocks are copied back out
// as KEY_ADDRESS records (each a copy of the key that started the block).
#include "serviceForProtocol/address_merge.h"

#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv_3000/address_codec.h"
#include "kv_3000/merge_rule.h"
#include "protocol.h"

#include <QDebug>
#include <QLoggingCategory>
#include <QStringList>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <numeric>
#include <vector>

namespace {

constexpr int64_t kMaxBlockUnits = 128;

// What merging needs of one catalogue row, looked up once per call.
struct RowInfo {
    bool splitsToWords = false;  // "DM_bit" and the like: bits become words of "DM"
    int unit = 1;                // transfer bits (column 5)
    bool bitElements = false;    // element bits (column 3) are 1
    QString wordName;            // "DM" for "DM_bit"
    int listIndex = -1;          // position of the name as merged in driver.regList
    int64_t pieceLimit = 1;      // how many 128-unit pieces the register holds at most
    int wordsPerUnit = 0;        // recipe buffer words per transfer unit (mode 2)
};

// One key, and later one block, in transfer units.
struct Span {
    int32_t station;
    int32_t regIndex;  // position in driver.regList, -1 when not there
    int32_t row;       // catalogue row of the key's own name, -1 for an unknown register
    int32_t source;    // position of the key whose fields the block carries
    int64_t address;
    int64_t length;
    int64_t recipeOffset;
    int32_t wordsPerUnit;
};

int32_t clampToInt(int64_t v) {
    return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : int32_t(v);
}

std::vector<RowInfo> rowTable(bool recipe) {
    std::vector<RowInfo> rows(REG_COUNT);
    for (int r = 0; r < REG_COUNT; ++r) {
        RowInfo& info = rows[r];
        const kvreg::Traits& t = kvreg::traits(r);
        const QString name = QString::fromLatin1(REG_LIST[r]);
        info.unit = t.transferBits;
        info.bitElements = t.countsBits();
        info.splitsToWords = !recipe && t.kind == kvreg::Kind::BitInWord;
        info.wordName = QString::fromLatin1(REG_LIST[t.keyRow]);
        info.listIndex = driver.regList.indexOf(info.splitsToWords ? info.wordName : name);

        int maxAddress = 0;
        const QString format = QString::fromLatin1(ADDRESS_RANGE_PRO[r][REG_COL_FORMAT]);
        a2i(QString::fromLatin1(ADDRESS_RANGE_PRO[r][REG_COL_MAX]), maxAddress, format, name);
        int64_t maxUnit = maxAddress;
        if (info.splitsToWords && info.unit > 0) maxUnit /= info.unit;
        info.pieceLimit = std::max<int64_t>(1, (maxUnit + kMaxBlockUnits) / kMaxBlockUnits);

        // Recipe buffer words per unit: one per bit, one per word, two per double word.
        if (recipe) info.wordsPerUnit = info.bitElements ? 1 : info.unit / 16;
    }
    return rows;
}

Span toSpan(const KEY_ADDRESS& key, int position, int row, const std::vector<RowInfo>& rows, bool recipe) {
    Span s{key.station, -1, row, position, key.address, key.length, key.recipeOffset, 0};
    if (row < 0) return s;  // unknown register: kept as it came, never joined
    const RowInfo& info = rows[row];
    s.regIndex = info.listIndex;
    s.wordsPerUnit = info.wordsPerUnit;
    if (recipe) {
        // A 32-bit entry of one word names no whole value: it becomes a block
        // of no units, which no transfer can carry.
        if (!info.bitElements) s.length = int64_t(double(s.length) * (16.0 / info.unit));
    } else if (info.splitsToWords) {
        // Bit address and bit count become the words that cover them:
        // bits 12.15 .. 13.2 are the two words from 12.
        const int64_t bits = s.length + s.address % info.unit;
        s.length = bits / info.unit + (bits % info.unit != 0 ? 1 : 0);
        s.address /= info.unit;
    } else if (info.unit != 1) {
        s.length = int64_t(double(s.length) * (16.0 / info.unit));
    }
    return s;
}

bool sameRegister(const Span& a, const Span& b) {
    return a.row >= 0 && b.row >= 0 && a.station == b.station && a.regIndex == b.regIndex;
}

// Joins next into current when the union of the two stays within one block.
// A key may start before the current block (the rest of a long key that was
// cut), so the block runs from the smaller start to the larger end.
bool joinUnion(Span& current, const Span& next) {
    const int64_t start = std::min(current.address, next.address);
    const int64_t end = std::max(current.address + current.length, next.address + next.length);
    if (end - start > kMaxBlockUnits) return false;
    current.recipeOffset -= (current.address - start) * current.wordsPerUnit;
    current.address = start;
    current.length = end - start;
    return true;
}

class FirstPass {
public:
    FirstPass(const std::vector<RowInfo>& rows, bool recipe, std::vector<Span>& out)
        : rows_(rows), recipe_(recipe), out_(out) {}

    void start(const Span& key) {
        current_ = key;
        cut();
    }
    void add(const Span& key) {
        // A recipe key of no units is a block of its own: joined with a
        // neighbour, the block would take the neighbour's values from the
        // empty key's place in the recipe buffer.
        const bool empty = recipe_ && (current_.length <= 0 || key.length <= 0);
        const bool joins = !empty && sameRegister(current_, key) &&
                           gapSplits(key.address - (current_.address + current_.length), 0) == 0 &&
                           joinUnion(current_, key);
        if (!joins) {
            put(current_);
            start(key);
        }
    }
    void finish() { put(current_); }

private:
    // Cuts 128-unit pieces off the front while the block is longer. A key
    // never yields more pieces than its register holds (only a length that
    // validation refuses gets there; its last piece is then 128 units), and
    // no piece starts beyond the int range.
    void cut() {
        if (current_.row < 0) return;
        const int64_t limit = rows_[current_.row].pieceLimit;
        int64_t pieces = 0;
        while (current_.length > kMaxBlockUnits) {
            if (pieces + 1 >= limit || current_.address + kMaxBlockUnits > INT_MAX) {
                current_.length = kMaxBlockUnits;
                break;
            }
            Span piece = current_;
            piece.length = kMaxBlockUnits;
            put(piece);
            current_.address += kMaxBlockUnits;
            current_.length -= kMaxBlockUnits;
            current_.recipeOffset += kMaxBlockUnits * current_.wordsPerUnit;
            ++pieces;
        }
    }
    // Recipe blocks: rcpFirstIndex gets exactly one entry per emitted block,
    // the position of the key that started it. The pieces of one long key
    // therefore share that key's position, and each carries the recipe offset
    // of its own first unit. The recipe read of block b takes the entries
    // rcpFirstIndex[b] up to rcpFirstIndex[b + 1]; a block that starts inside
    // an entry is placed by its own address and recipeOffset.
    void put(const Span& block) {
        out_.push_back(block);
        if (recipe_) driver.rcpFirstIndex.append(block.source);
    }

    const std::vector<RowInfo>& rows_;
    bool recipe_;
    std::vector<Span>& out_;
    Span current_{};
};

std::vector<Span> gapPass(const std::vector<Span>& blocks) {
    std::vector<Span> out;
    out.reserve(blocks.size());
    Span current = blocks.front();
    for (size_t i = 1; i < blocks.size(); ++i) {
        const Span& next = blocks[i];
        const bool joins = sameRegister(current, next) &&
                           gapSplits(next.address - (current.address + current.length), 1) == 0 &&
                           joinUnion(current, next);
        if (!joins) {
            out.push_back(current);
            current = next;
        }
    }
    out.push_back(current);
    return out;
}

bool debugLinesWanted() {
    // Qt drops disabled debug lines anyway; this only saves formatting them.
    const QLoggingCategory* category = QLoggingCategory::defaultCategory();
    return category == nullptr || category->isDebugEnabled();
}

}  // namespace

QList<MergedBlock> mergedBlocks(const QList<KEY_ADDRESS>& keys, int mode) {
    QList<MergedBlock> merged;
    if (keys.isEmpty()) return merged;
    const bool recipe = mode == 2;
    const std::vector<RowInfo> rows = rowTable(recipe);
    const int count = keys.size();

    std::vector<Span> spans;
    spans.reserve(count);
    QString lastName;
    int lastRow = -1;
    bool haveLast = false;
    for (int i = 0; i < count; ++i) {
        const KEY_ADDRESS& key = keys.at(i);
        if (!haveLast || key.reg != lastName) {
            lastName = key.reg;
            lastRow = getIndexFromRegName(key.reg);
            haveLast = true;
        }
        spans.push_back(toSpan(key, i, lastRow, rows, recipe));
    }

    if (!recipe && debugLinesWanted()) {
        for (int i = 0; i < count; ++i) {
            const Span& s = spans[i];
            const QString& name =
                s.row >= 0 && rows[s.row].splitsToWords ? rows[s.row].wordName : keys.at(i).reg;
            // "step0:id=%1,reg=%2,address=%3,len=%4", filled in one pass.
            QString line;
            line.reserve(name.size() + 48);
            line.append(QLatin1String("step0:id="));
            line.append(QString::number(i));
            line.append(QLatin1String(",reg="));
            line.append(name);
            line.append(QLatin1String(",address="));
            line.append(QString::number(s.address));
            line.append(QLatin1String(",len="));
            line.append(QString::number(s.length));
            qDebug() << line;
        }
    }

    // Stable by the unsigned weight: equal weights keep their input order,
    // exactly as a neighbour-swapping bubble sort would leave them.
    std::vector<int> order(count);
    std::iota(order.begin(), order.end(), 0);
    if (!recipe) {
        std::vector<uint32_t> weight(count);
        for (int i = 0; i < count; ++i) {
            weight[i] = regAddressWeight(spans[i].station, spans[i].regIndex, clampToInt(spans[i].address));
        }
        std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return weight[a] < weight[b]; });
    }

    std::vector<Span> blocks;
    blocks.reserve(count);
    FirstPass pass(rows, recipe, blocks);
    pass.start(spans[order[0]]);
    for (int i = 1; i < count; ++i) pass.add(spans[order[i]]);
    pass.finish();
    if (!recipe) blocks = gapPass(blocks);

    merged.reserve(int(blocks.size()));
    for (const Span& b : blocks) {
        const KEY_ADDRESS& key = keys.at(b.source);
        const QString& reg =
            !recipe && b.row >= 0 && rows[b.row].splitsToWords ? rows[b.row].wordName : key.reg;
        merged.append(MergedBlock{b.source, reg, clampToInt(b.address), clampToInt(b.length),
                                  recipe ? clampToInt(b.recipeOffset) : key.recipeOffset});
    }
    return merged;
}

void addrMerge(QList<KEY_ADDRESS>& keys, int mode) {
    if (keys.isEmpty()) return;
    const QList<MergedBlock> blocks = mergedBlocks(keys, mode);
    QList<KEY_ADDRESS> merged;
    merged.reserve(blocks.size());
    for (const MergedBlock& b : blocks) {
        merged.append(keys.at(b.source));
        KEY_ADDRESS& out = merged.last();
        out.reg = b.reg;
        out.address = b.address;
        out.length = b.length;
        out.recipeOffset = b.recipeOffset;
    }
    keys.swap(merged);
}
