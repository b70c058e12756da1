#include "recipe.h"

#include "operations.h"

#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cstdint>

namespace kvhost {

namespace {

bool overlaps(const FrameName& f, const RecipeRow& row) {
    return f.reg == row.address.reg->name && f.address < row.address.address + row.address.count &&
           row.address.address < f.address + std::max(1, f.length);
}

// Runs the loop until the request byte is cleared; a block abandoned on the
// way ends the transfer early and is the failure reported.
RecipeResult runTransfer(Session& session, const std::vector<RecipeRow>& rows, bool write) {
    RecipeResult result;
    QString failed;
    const int observer = session.addExchangeObserver([&](const Exchange& ex) {
        FrameName f;
        if (ex.result != KV_DEAL_ABANDONED || !failed.isEmpty() || !parseDriverMessage(ex.message, f)) return;
        for (const RecipeRow& row : rows)
            if (overlaps(f, row)) failed = ex.message;
    });
    Runtime& rt = session.runtime();
    if (write)
        rt.requestRecipeWrite();
    else
        rt.requestRecipeRead();
    const Session::RunResult run =
        session.runUntil([&] { return write ? !rt.recipeWritePending() : !rt.recipeReadPending(); });
    session.removeExchangeObserver(observer);
    result.run = run;
    if (run != Session::RunResult::Done) {
        result.message = run == Session::RunResult::Interrupted ? QStringLiteral("interrupted")
                                                                : QString::fromStdString(session.failure());
        return result;
    }
    if (!failed.isEmpty()) {
        result.message = session.explain(failed);
        return result;
    }
    result.ok = true;
    return result;
}

// The units of one row: addresses start .. end - 1 of group, which is the
// register, or for a bit view in words the words of its word register.
struct Span {
    QString group;
    qint64 start;
    qint64 end;
    const RecipeRow* row;
    bool bits;  // a bit view in words
};

// Sorts the spans by group and start, and finds the first that begins
// inside an earlier one of its group, of the same kind or (mixed) of the
// other: the indices of the two, the earlier first.
bool firstOverlap(std::vector<Span>& spans, bool mixed, size_t& earlier, size_t& later) {
    std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) {
        return a.group != b.group ? a.group < b.group : a.start < b.start;
    });
    constexpr size_t kNone = SIZE_MAX;
    size_t widest[2] = {kNone, kNone};  // by kind, the span reaching furthest
    for (size_t i = 0; i < spans.size(); ++i) {
        const Span& s = spans[i];
        if (i > 0 && s.group != spans[i - 1].group) widest[0] = widest[1] = kNone;
        const size_t other = widest[mixed ? !s.bits : s.bits];
        if (other != kNone && spans[other].end > s.start) {
            earlier = other;
            later = i;
            return true;
        }
        size_t& mine = widest[s.bits];
        if (mine == kNone || s.end > spans[mine].end) mine = i;
    }
    return false;
}

// Two rows naming the same unit cannot both be transferred: the driver
// merges recipe entries by address. With values, a word written whole and
// through one of its bits is refused too: which lands last is not sure.
bool eachUnitOnce(const Catalogue& catalogue, const std::vector<RecipeRow>& rows, const QString& fileName,
                  bool withValues, QString* error) {
    std::vector<Span> same, words;
    for (const RecipeRow& row : rows) {
        const Address& a = row.address;
        same.push_back({a.reg->name, a.address, qint64(a.address) + a.count, &row, false});
        if (a.reg->unit() == kvreg::Unit::BitInWord)
            words.push_back({QString::fromLatin1(REG_LIST[a.reg->traits.keyRow]), a.address / 16,
                             (qint64(a.address) + a.count - 1) / 16 + 1, &row, true});
        else if (a.reg->unit() == kvreg::Unit::Word)
            words.push_back({a.reg->name, a.address, qint64(a.address) + a.count, &row, false});
    }
    size_t i = 0, j = 0;
    const std::vector<Span>* found = nullptr;
    if (firstOverlap(same, false, i, j))
        found = &same;
    else if (withValues && firstOverlap(words, true, i, j))
        found = &words;
    if (!found) return true;
    const Span& a = (*found)[i];
    const Span& b = (*found)[j];
    const RegisterInfo* reg = catalogue.find(b.group);
    const RecipeRow* first = a.row->line < b.row->line ? a.row : b.row;
    const RecipeRow* second = first == a.row ? b.row : a.row;
    if (error)
        *error = QStringLiteral(
                     "%1:%2: %3 and line %4 (%5) both name %6; a recipe transfers each unit from "
                     "one row only")
                     .arg(fileName)
                     .arg(second->line)
                     .arg(second->address.text)
                     .arg(first->line)
                     .arg(first->address.text, reg ? formatUnit(*reg, static_cast<int>(b.start)) : b.group);
    return false;
}

bool registerEntries(Session& session, const std::vector<RecipeRow>& rows, std::vector<int>& offsets,
                     QString* error) {
    QVector<_RCP_VAR_PRO> entries = recipeEntries(rows, session.options().protocolId, offsets);
    int words = 0;
    for (const _RCP_VAR_PRO& e : entries) words = std::max(words, e.bufferOffset + e.length);
    if (words > Runtime::kRecipeWords) {
        *error = QStringLiteral("the recipe needs %1 buffer words; the buffer holds %2")
                     .arg(words)
                     .arg(Runtime::kRecipeWords);
        return false;
    }
    const int accepted = session.api().setRcpAddress(entries);
    if (accepted != entries.size()) {
        *error = QStringLiteral("the driver took %1 of %2 recipe entries").arg(accepted).arg(entries.size());
        return false;
    }
    return true;
}

}  // namespace

bool parseRecipe(const Catalogue& catalogue, const DriverApi& api, const QString& text,
                 const QString& fileName, bool withValues, std::vector<RecipeRow>& rows, QString* error) {
    std::vector<RecipeRow> out;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int n = 0; n < lines.size(); ++n) {
        const QString line = lines[n].trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) continue;
        auto fail = [&](const QString& why) {
            if (error) *error = QStringLiteral("%1:%2: %3").arg(fileName).arg(n + 1).arg(why);
            return false;
        };
        if (line.contains(QLatin1Char(';')))
            return fail(QStringLiteral("expected comma-separated fields, found ';' (ADDR,VALUE[,VALUE...])"));
        QStringList fields = line.split(QLatin1Char(','));
        for (QString& f : fields) f = f.trimmed();
        QString addressText = fields.takeFirst();
        while (!fields.isEmpty() && fields.last().isEmpty()) fields.removeLast();
        if (withValues) {
            if (fields.isEmpty()) return fail(QStringLiteral("%1 has no value").arg(addressText));
            if (addressText.contains(QLatin1Char(':'))) {
                const int count = addressText.mid(addressText.indexOf(QLatin1Char(':')) + 1).toInt();
                if (count != fields.size())
                    return fail(QStringLiteral("%1 has %2 values").arg(addressText).arg(fields.size()));
            } else if (fields.size() > 1) {
                addressText += QStringLiteral(":%1").arg(fields.size());
            }
        } else if (!addressText.contains(QLatin1Char(':')) && fields.size() > 1) {
            addressText += QStringLiteral(":%1").arg(fields.size());
        }
        RecipeRow row;
        row.line = n + 1;
        QString why;
        if (!parseAddress(catalogue, api, addressText, withValues ? Access::Write : Access::Read, row.address,
                          &why))
            return fail(why);
        if (withValues) {
            for (const QString& f : fields) {
                uint32_t v = 0;
                if (!parseValue(*row.address.reg, f, v, &why)) return fail(why);
                row.values.push_back(v);
            }
        }
        out.push_back(row);
    }
    if (out.empty()) {
        if (error) *error = fileName + QStringLiteral(": no addresses in the recipe");
        return false;
    }
    if (!eachUnitOnce(catalogue, out, fileName, withValues, error)) return false;
    rows = out;
    return true;
}

bool readRecipeFile(const Catalogue& catalogue, const DriverApi& api, const QString& path, bool withValues,
                    std::vector<RecipeRow>& rows, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    const QByteArray data = file.read(4 * 1024 * 1024);
    return parseRecipe(catalogue, api, QString::fromUtf8(data), path, withValues, rows, error);
}

QString formatRecipe(const std::vector<RecipeRow>& rows) {
    QString text;
    for (const RecipeRow& row : rows) {
        text += formatUnit(*row.address.reg, row.address.address);
        for (uint32_t v : row.values) text += QLatin1Char(',') + QString::number(v);
        text += QLatin1Char('\n');
    }
    return text;
}

QVector<_RCP_VAR_PRO> recipeEntries(const std::vector<RecipeRow>& rows, int protocolId,
                                    std::vector<int>& offsets) {
    QVector<_RCP_VAR_PRO> entries;
    offsets.clear();
    int offset = 0;
    for (const RecipeRow& row : rows) {
        const Address& a = row.address;
        offsets.push_back(offset);
        _RCP_VAR_PRO e;
        e.protocolId = protocolId;
        e.station = 1;
        e.reg = a.reg->name;
        if (a.reg->unit() == kvreg::Unit::DWord) {
            // One entry per value: a read fills one value per entry.
            for (int i = 0; i < a.count; ++i) {
                e.address = a.address + i;
                e.length = 2;
                e.bufferOffset = offset;
                entries.append(e);
                offset += 2;
            }
        } else {
            e.address = a.address;
            e.length = a.count;
            e.bufferOffset = offset;
            entries.append(e);
            offset += a.count;
        }
    }
    return entries;
}

RecipeResult recipeDownload(Session& session, const std::vector<RecipeRow>& rows) {
    RecipeResult result;
    std::vector<int> offsets;
    if (!registerEntries(session, rows, offsets, &result.message)) return result;
    unsigned short* buffer = session.runtime().recipeBuffer();
    for (size_t r = 0; r < rows.size(); ++r) {
        const RecipeRow& row = rows[r];
        int w = offsets[r];
        for (uint32_t v : row.values) {
            buffer[w++] = static_cast<unsigned short>(v & 0xFFFF);
            if (row.address.reg->unit() == kvreg::Unit::DWord)
                buffer[w++] = static_cast<unsigned short>(v >> 16);
        }
    }
    return runTransfer(session, rows, true);
}

RecipeResult recipeUpload(Session& session, std::vector<RecipeRow>& rows) {
    RecipeResult result;
    std::vector<int> offsets;
    if (!registerEntries(session, rows, offsets, &result.message)) return result;
    unsigned short* buffer = session.runtime().recipeBuffer();
    for (size_t r = 0; r < rows.size(); ++r) {
        const int words = rows[r].address.count * rows[r].address.reg->unitLength();
        std::fill(buffer + offsets[r], buffer + offsets[r] + words, 0);
    }
    result = runTransfer(session, rows, false);
    if (!result.ok) return result;
    for (size_t r = 0; r < rows.size(); ++r) {
        RecipeRow& row = rows[r];
        row.values.clear();
        int w = offsets[r];
        for (int i = 0; i < row.address.count; ++i) {
            uint32_t v = buffer[w++];
            if (row.address.reg->unit() == kvreg::Unit::DWord) v |= static_cast<uint32_t>(buffer[w++]) << 16;
            if (row.address.reg->isBit()) v &= 1;
            row.values.push_back(v);
        }
    }
    return result;
}

}  // namespace kvhost
