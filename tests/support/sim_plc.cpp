#include "sim_plc.h"

QByteArray SimPlc::answer(const FRAME_PRO& f) {
    ++requests;
    const auto reply = kvsim::answer(mem, f.frame, static_cast<size_t>(f.sendLength));
    return QByteArray(reinterpret_cast<const char*>(reply.data()), static_cast<int>(reply.size()));
}

QByteArray replyOf(const std::vector<uint8_t>& body) {
    const auto reply = kvsim::replyEnvelope(body);
    return QByteArray(reinterpret_cast<const char*>(reply.data()), static_cast<int>(reply.size()));
}

std::vector<LoopStep> runLoop(SimPlc& plc, int steps,
                              const std::function<QByteArray(const FRAME_PRO&, QByteArray)>& tamper) {
    std::vector<LoopStep> done;
    for (int i = 0; i < steps; ++i) {
        FRAME_PRO f;
        if (!intf_getSendFrame(&f)) break;
        QByteArray reply = plc.answer(f);
        if (tamper) reply = tamper(f, reply);
        QString message;
        const int result = intf_dealRcvFrame(&reply, &message);
        done.push_back({f, result});
    }
    return done;
}
