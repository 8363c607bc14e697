// SPDX-License-Identifier: MIT
// Answers orders until the queue is empty: consumer ORDERS ANSWERS ASIDE. An order is a whole number, its answer the
// square. Order and answer are one unit of work: whatever becomes of this program, an order that is gone was answered,
// and answered once. One that cannot be answered is tried three times, by this or another consumer, and goes aside.
#include <kvr.hpp>

#include <cstdio>
#include <exception>
#include <string>

using namespace kvr::app;

namespace {

constexpr std::uint32_t kTries = 3;

/// Throws for what is no number.
std::string square(std::string_view text) {
    const long long number = std::stoi(std::string(text));
    return std::to_string(number * number);
}

void answer(Unit& unit, const Message& order, const std::string& queue) {
    Message reply(square(order.data()));
    reply.set(KVR_CORRELATION_ID, order.id());
    unit.put(queue, reply);
    unit.commit();
}

void consume(const std::string& orders, const std::string& answers, const std::string& aside) {
    Connection qm;
    Message order;
    Wanted wanted;
    wanted.max_tries = kTries;
    wanted.aside = aside;
    for (;;) {
        Unit unit(qm);
        if (unit.get(orders, order, wanted) != Got::kMessage) {
            return;
        }
        try {
            answer(unit, order, answers);
        } catch (const Error&) {
            throw; // of the queue manager: the next orders would meet it, too
        } catch (const std::exception&) {
            // The order is to blame. The end of the unit gives it back, and counts.
            std::fprintf(stderr, "no answer to '%.*s', try %u\n", static_cast<int>(order.data().size()),
                         order.data().data(), order.given_back() + 1);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: consumer ORDERS ANSWERS ASIDE\n", stderr);
        return 2;
    }
    try {
        consume(argv[1], argv[2], argv[3]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "consumer: %s\n", error.what());
        return 1;
    }
}
