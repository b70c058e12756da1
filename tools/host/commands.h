// The commands of kv3000-host. Arguments are checked by prepareCommand
// before any link is opened; the run functions return the exit status.
#ifndef KV3000_HOST_COMMANDS_H
#define KV3000_HOST_COMMANDS_H

#include "address.h"
#include "gateway_map.h"
#include "operations.h"
#include "options.h"
#include "recipe.h"
#include "session.h"

#include <vector>

namespace kvhost {

struct PreparedCommand {
    std::vector<Address> addresses;    // watch, read, serve
    std::vector<WriteRequest> writes;  // write
    std::vector<RecipeRow> rows;       // recipe-download, recipe-upload
    std::vector<GatewayMap> maps;      // gateway
    QString file;
    QString output;   // recipe-upload --output; empty: standard output
    QString forText;  // watch --for as typed
};

// "DM100=5", "DM100:3=1,2,3" (or one value for all), "TC5=100000".
bool parseWriteArgument(const Catalogue& catalogue, const DriverApi& api, const QString& text,
                        WriteRequest& out, QString* error);

// false with a message naming the argument and what is wrong (exit status 2).
bool prepareCommand(const CommandLine& cl, const Catalogue& catalogue, const DriverApi& api,
                    PreparedCommand& out, QString* error);

int runInfo(const DriverApi& api, const Catalogue& catalogue);
int runWatch(Session& session, const PreparedCommand& cmd, double forSeconds);
int runRead(Session& session, const PreparedCommand& cmd);
int runWrite(Session& session, const PreparedCommand& cmd);
int runRecipeDownload(Session& session, const PreparedCommand& cmd);
int runRecipeUpload(Session& session, PreparedCommand& cmd);
int runDemo(Session& session, const Catalogue& catalogue);

// "DM100 = 1234 (0x04D2)" for each unit of a read.
void printValues(const Address& address, const std::vector<uint32_t>& values);

}  // namespace kvhost

#endif
