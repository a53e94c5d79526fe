// The connection behind Client: state 0 (created, thread waiting) -> 1 (ready) -> 2 (stopped,
// after the reply, an error, Stop or a reload request). The descriptor is closed only by the
// connection's own thread (or its destructor), so a descriptor number is never closed while that
// thread may still read from it; Stop only shuts the connection down to wake the thread.
//
// A connection cannot hold its thread for ever: one that has not delivered a frame that parses
// within kConnectionDeadline of its start is closed, whether the peer is silent, slow, or sends
// frames that never parse. A frame that arrives in pieces is put together up to its full size
// (until complete, the peer closes, or kFramePiecePause passes with no data) and then handled as
// if it had arrived whole; a frame that stays short is handled as it is, as before.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "core/client/client.h"
#include "core/controller/vxcdbmessagestring.h"

class ClientImpl : public Client {
  public:
    static constexpr int kStateCreated = 0;
    static constexpr int kStateReady = 1;
    static constexpr int kStateStopped = 2;

    // Time a connection has to deliver a request that parses: the tool sends its request right
    // after connecting, so this is only ever reached by a peer that holds the connection (and a
    // thread of the camera service) without using it; it also bounds how long such peers can
    // keep the server full. Well under the tool's own 5 s timeout.
    static constexpr std::chrono::milliseconds kConnectionDeadline{3000};
    // Pause with no data after which a partial frame is taken as it is: a peer writing a frame in
    // pieces sends them back to back, so a longer gap means nothing more is coming.
    static constexpr std::chrono::milliseconds kFramePiecePause{200};

    // Takes the descriptor and the controller, then starts the thread, which waits for
    // Initialize before it touches the connection.
    explicit ClientImpl(const ClientCreateInputData& data);
    // Stops the connection and waits for its thread.
    ~ClientImpl() override;

    // Releases the thread (state 1). Always 0.
    int Initialize();
    // Ends the connection from another thread: shuts it down and sets state 2.
    void Stop();
    // Answers one received frame; returns the last send's byte count, or 0 when the frame did
    // not parse (the thread then waits for another frame on the same connection).
    int Process(VXCDBMessageString* request);

    // True once the thread has returned; Join then does not block.
    bool IsFinished() const { return m_finished.load(); }
    void Join();

  private:
    using Clock = std::chrono::steady_clock;

    void Run();
    // Receives one frame into `frame` (zeroed by the caller), in as many pieces as it comes.
    // Returns the byte count, or what the first receive returned when it got nothing (0 when the
    // peer closed, -1 with errno set); sets `late` and returns 0 when `deadline` passed first.
    ssize_t ReceiveFrame(VXCDBMessageString* frame, Clock::time_point deadline, bool* late);
    void SetState(int state);
    int Send(const VXCDBMessageString& frame);
    // Shuts down and closes the descriptor (connection thread only).
    void CloseConnection();

    int m_fd = -1;
    std::atomic<int> m_state{kStateCreated};
    CorvaneSystem* m_pSystem = nullptr;
    std::mutex m_mutex;  // guards m_fd against Stop, and the state wait
    std::condition_variable m_stateChanged;
    std::atomic<bool> m_finished{false};
    std::thread m_thread;  // last: started once every other member is set
};
