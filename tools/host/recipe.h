// Recipes: CSV files of "ADDR,VALUE[,VALUE...]" rows, their entries in the
// runtime's recipe buffer, and transfers through the two request bytes.
#ifndef KV3000_HOST_RECIPE_H
#define KV3000_HOST_RECIPE_H

#include "address.h"
#include "session.h"

#include <QString>
#include <QVector>

#include <cstdint>
#include <vector>

namespace kvhost {

struct RecipeRow {
    Address address;
    std::vector<uint32_t> values;  // one per unit (empty before an upload)
    int line = 0;                  // in the file, from 1
};

// Parses CSV text: fields separated by commas only, no header row. withValues:
// every row needs at least one value, whose number sets the count
// ("DM100,1,2,3" is DM100:3); without: values are ignored and the count
// comes from ":N" ("DM100:3"). Blank lines and lines starting with '#' are
// skipped. Two rows may not name the same unit (the driver merges recipe
// entries by address, so one of them would not be transferred), nor, with
// values, a word and one of its bits. Errors name the line: "FILE:3: ...".
bool parseRecipe(const Catalogue& catalogue, const DriverApi& api, const QString& text,
                 const QString& fileName, bool withValues, std::vector<RecipeRow>& rows, QString* error);
bool readRecipeFile(const Catalogue& catalogue, const DriverApi& api, const QString& path, bool withValues,
                    std::vector<RecipeRow>& rows, QString* error);
// "DM100,1,2,3\nTC5,100000\n"
QString formatRecipe(const std::vector<RecipeRow>& rows);

// The recipe entries for the rows, with consecutive buffer offsets: one
// word per 16-bit value, two per 32-bit value (low half first, one entry per
// value), one word per bit. offsets receives each row's first word.
QVector<_RCP_VAR_PRO> recipeEntries(const std::vector<RecipeRow>& rows, int protocolId,
                                    std::vector<int>& offsets);

struct RecipeResult {
    bool ok = false;
    QString message;  // the driver's message for the failed block, or the link failure
    Session::RunResult run = Session::RunResult::Done;
};
// Download: the values into the buffer, byte 60115 set, the loop run until
// the driver clears it.
RecipeResult recipeDownload(Session& session, const std::vector<RecipeRow>& rows);
// Upload: byte 60116 set, the loop run until cleared, values taken from the buffer.
RecipeResult recipeUpload(Session& session, std::vector<RecipeRow>& rows);

}  // namespace kvhost

#endif
