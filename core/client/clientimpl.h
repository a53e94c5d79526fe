// The connection behind Client: state 0 (created, thread waiting) -> 1 (ready) -> 2 (stopped,
// after the reply, an error, Stop or a reload request). The descriptor is closed only by the
// connection's own thread (or its destructor), so a descriptor number is never closed while that
// thread may still read from it; Stop only shuts the connection down to wake the thread.
#pragma once

#include <atomic>
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
    void Run();
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
