// SPDX-License-Identifier: Apache-2.0
#include "backends/udp_packet_queue.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace telvora {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using State = UDPPacketToSend::State;

UDPPacketToSend packet(uint16_t number, State state = State::sent) {
    UDPPacketToSend result("data" + std::to_string(number), number);
    result.state = state;
    return result;
}

struct Link {
    bool up = true;
    std::vector<std::string> sent = {};
    UDPPacketQueue::Send send = [this](std::string_view datagram) {
        sent.emplace_back(datagram);
        return up;
    };
};

std::vector<uint16_t> numbersIn(const UDPPacketQueue& queue) {
    std::vector<uint16_t> numbers;
    for (const UDPPacketToSend& waiting : queue.packets())
        numbers.push_back(waiting.eventNumber);
    return numbers;
}

TEST(UDPPacketQueueTest, APacketThatNobodyAcknowledgesIsSentInFourTicksAndDropped) {
    UDPPacketQueue queue;
    Link link;
    queue.append(packet(1));
    std::vector<int> ticks;
    int tick = 0;
    while (!queue.empty()) {
        link.sent.clear();
        ++tick;
        queue.tick(true, link.send);
        if (!link.sent.empty()) ticks.push_back(tick);
    }
    EXPECT_THAT(ticks, ElementsAre(2, 5, 10, 19));
    EXPECT_EQ(tick, 20);
}

TEST(UDPPacketQueueTest, AFailingResendDoesNotCountAndIsTriedInEveryTick) {
    UDPPacketQueue queue;
    Link link{.up = false};
    queue.append(packet(1));
    for (int tick = 0; tick < 101; ++tick)
        queue.tick(true, link.send);
    EXPECT_EQ(link.sent.size(), 100u);
    EXPECT_EQ(queue.packets()[0].numberOfRetransmits, 0);
    link.up = true;
    queue.tick(true, link.send);
    EXPECT_EQ(queue.packets()[0].numberOfRetransmits, 1);
    EXPECT_EQ(queue.packets()[0].numberOfChecks, 0);
}

TEST(UDPPacketQueueTest, WhatWasNeverSentIsTriedInEveryTick) {
    for (const bool reliable : {false, true}) {
        UDPPacketQueue queue;
        Link link{.up = false};
        queue.append(packet(1, State::unsent));
        queue.append(packet(2, State::unsent));
        queue.tick(reliable, link.send);
        EXPECT_THAT(link.sent, ElementsAre("data1", "data2"));
        EXPECT_EQ(queue.packets()[0].state, State::unsent);
        link.up = true;
        queue.tick(reliable, link.send);
        if (!reliable) {
            EXPECT_TRUE(queue.empty());
            continue;
        }
        EXPECT_EQ(queue.packets()[1].state, State::sent);
        EXPECT_EQ(queue.packets()[1].numberOfChecks, 0);
        EXPECT_EQ(queue.packets()[1].numberOfRetransmits, 0);
    }
}

TEST(UDPPacketQueueTest, ATickWalksOnBehindWhatItRemoves) {
    UDPPacketQueue queue;
    Link link;
    for (const uint16_t number : {1, 2, 3, 4}) {
        UDPPacketToSend waiting = packet(number);
        if (number != 3) waiting.numberOfRetransmits = 4;
        waiting.numberOfChecks = 1;
        queue.append(std::move(waiting));
    }
    queue.tick(true, link.send);
    EXPECT_THAT(numbersIn(queue), ElementsAre(3));
    EXPECT_THAT(link.sent, ElementsAre("data3"));
}

TEST(UDPPacketQueueTest, AnAcknowledgementSettlesTheOldestOfItsNumber) {
    UDPPacketQueue queue;
    for (const uint16_t number : {7, 8, 7})
        queue.append(packet(number));
    EXPECT_FALSE(queue.acknowledge(9));
    EXPECT_TRUE(queue.acknowledge(7));
    EXPECT_THAT(numbersIn(queue), ElementsAre(8, 7));
    EXPECT_TRUE(queue.acknowledge(7));
    EXPECT_FALSE(queue.acknowledge(7));
    EXPECT_TRUE(queue.acknowledge(8));
    EXPECT_THAT(numbersIn(queue), IsEmpty());
}

TEST(UDPPacketQueueTest, The51stPacketDisplacesTheOldest) {
    UDPPacketQueue queue;
    for (uint16_t number = 0; number < 50; ++number)
        queue.append(packet(number));
    EXPECT_EQ(queue.packets().front().eventNumber, 0);
    queue.append(packet(50));
    EXPECT_EQ(queue.size(), 50u);
    EXPECT_EQ(queue.packets().front().eventNumber, 1);
    EXPECT_EQ(queue.packets().back().eventNumber, 50);
}

}  // namespace
}  // namespace telvora
