// The player on the session bus, as the desktop's media keys and widgets know it (MPRIS 2.2). For a
// program without a bus there is nothing here, and nothing is missed.
#pragma once

#include <memory>

#include "control.h"
#include "status.h"

class Mpris
{
public:
    // `status` is read when the bus asks. Null where there is no session bus.
    static std::unique_ptr<Mpris> Connect(Control& control, const Status& status,
                                          const Queue& queue);
    ~Mpris();
    Mpris(const Mpris&) = delete;
    Mpris& operator=(const Mpris&) = delete;

    // To be polled for reading. Process is to be called often also where there is nothing.
    int Descriptor() const;

    // Answers what has come in, on the caller's thread. False once the bus is gone.
    bool Process();

    // Tells the bus what has changed in the status since the last time, and of a jump in the
    // position.
    void Update();

private:
    struct Bus;
    explicit Mpris(std::unique_ptr<Bus> bus);

    std::unique_ptr<Bus> m_bus;
};
