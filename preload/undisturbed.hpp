// While a thread talks to the controller: no signal handler of the program runs in it, which might call the device again, and
// it is not cancelled, as it would not be within a call of the real device.
#pragma once

#include <csignal>
#include <pthread.h>

namespace velmora::preload {

class Undisturbed
{
public:
    Undisturbed()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &signals_);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation_);
    }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;
    ~Undisturbed()
    {
        pthread_setcancelstate(cancellation_, nullptr);
        pthread_sigmask(SIG_SETMASK, &signals_, nullptr);
    }

private:
    sigset_t signals_;
    int cancellation_;
};

} // namespace velmora::preload
