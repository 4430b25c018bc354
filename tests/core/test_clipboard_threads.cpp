// Clipboard transfer on real threads and the real clock: two objects, a network thread for each direction,
// and users who copy and change sessions at random. The thread sanitizer judges; by itself the test sees that
// the last blob arrives whole, and that nothing hangs.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <thread>

#include "support/clip_end.h"

namespace {

// Carries packets from one end to the other on a thread of its own, losing one in `loss`.
class carrier {
public:
    carrier(clip_end &from, clip_end &to, unsigned loss) : to_(to), random_(loss), loss_(loss) {
        from.sending = [this](const bytes &p) {
            const std::lock_guard held(lock_);
            if (loss_ == 0 || random_.below(loss_) > 0) queue_.push_back(p);
            changed_.notify_all();
        };
        thread_ = std::thread([this] { run(); });
    }
    // No packet may come any more.
    void finish() {
        {
            const std::lock_guard held(lock_);
            ended_ = true;
            changed_.notify_all();
        }
        thread_.join();
    }

private:
    void run() {
        std::unique_lock held(lock_);
        for (;;) {
            changed_.wait(held, [this] { return ended_ || !queue_.empty(); });
            if (ended_) return;
            const bytes p = queue_.front();
            queue_.pop_front();
            held.unlock();
            to_.feed(p);
            held.lock();
        }
    }
    clip_end &to_;
    test_random random_;
    unsigned loss_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<bytes> queue_;
    bool ended_ = false;
    std::thread thread_;
};

TEST(ClipThreads, EveryCallFromEveryThread) {
    std::mutex lock;
    std::condition_variable arrived;
    bytes last[2];
    clip_end ends[2];
    for (int i = 0; i < 2; i++) {
        ends[i].delivering = [&, i](const clip_end::blob &got) {
            const std::lock_guard held(lock);
            last[i] = got.data;
            arrived.notify_all();
        };
    }
    carrier there(ends[0], ends[1], 20), back(ends[1], ends[0], 20);
    std::vector<std::thread> users;
    for (uint64_t seed = 0; seed < 3; seed++) {
        users.emplace_back([&, seed] {
            test_random random(seed);
            for (int i = 0; i < 200; i++) {
                clip_end &end = ends[random.below(2)];
                if (random.below(20) == 0)
                    tarn_clip_set_session(end.clip, static_cast<uint32_t>(7 + random.below(2)), 1176);
                else
                    end.offer(pattern(1 + random.below(20000), random.next()));
            }
        });
    }
    for (std::thread &user : users)
        user.join();

    // After the storm all is as before it: a new session, and each blob comes to the other side.
    for (clip_end &end : ends)
        tarn_clip_set_session(end.clip, 100, 1000);
    for (size_t i = 0; i < 2; i++) {
        const bytes blob = pattern(100000, i);
        ends[i].offer(blob);
        std::unique_lock held(lock);
        arrived.wait(held, [&] { return last[1 - i] == blob; });
    }
    there.finish();
    back.finish();
    for (clip_end &end : ends)
        tarn_clip_destroy(std::exchange(end.clip, nullptr)); // they still send to the carriers
}

TEST(ClipThreads, TheEndNeverHangs) {
    for (int i = 0; i < 50; i++) {
        clip_end a(7, 1176, i % 2 ? 1000 : 0); // its thread waits for tokens, for an answer, or runs
        if (i % 5 > 0) a.offer(pattern(static_cast<size_t>(i) * 10000, 1), TARN_CLIP_PNG);
    }
}

} // namespace
