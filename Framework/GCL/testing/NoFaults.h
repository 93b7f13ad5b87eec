// NoFaults: while one lives, the calls of its thread go to the C library, whatever faults, counts
// and hooks are in force. What a test does between the steps of the code under test belongs inside.
#ifndef GCL_TESTING_NOFAULTS_H
#define GCL_TESTING_NOFAULTS_H

namespace gcltest {

class NoFaults {
public:
    NoFaults() : before(flag()) { flag() = true; }
    ~NoFaults() { flag() = before; }
    NoFaults(const NoFaults&) = delete;
    NoFaults& operator=(const NoFaults&) = delete;

    // Whether one lives on the calling thread.
    static bool live() { return flag(); }

private:
    static bool& flag()
    {
        static thread_local bool set = false;
        return set;
    }

    const bool before;
};

} // namespace gcltest

#endif // GCL_TESTING_NOFAULTS_H
