#pragma once

namespace tsmon {

/// Something that happens once, made a file descriptor, so that it can be waited for together with
/// others.
class Completion
{
 public:
    Completion();
    ~Completion();

    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    /// Whether the system had a descriptor left for it. Without one it cannot be used.
    bool IsValid() const { return m_file >= 0; }

    /// It has happened. Any thread may call.
    void Set();

    /// Readable from Set() on. Stays the object's.
    int Descriptor() const { return m_file; }

 private:
    int m_file;
};

} // namespace tsmon
