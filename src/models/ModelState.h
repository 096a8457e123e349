#pragma once

namespace vocari {

// The install state of one engine: downloading with the fraction done, not installed, or
// installed.
class ModelState
{
public:
    enum class Kind
    {
        Downloading,
        NotInstalled,
        Installed
    };

    static ModelState downloading(double fraction) { return {Kind::Downloading, fraction}; }
    static ModelState notInstalled() { return {Kind::NotInstalled, 0.0}; }
    static ModelState installed() { return {Kind::Installed, 0.0}; }

    Kind kind() const { return m_kind; }
    bool isDownloading() const { return m_kind == Kind::Downloading; }
    bool isInstalled() const { return m_kind == Kind::Installed; }
    // The fraction done, from 0 to 1, while downloading; 0 otherwise.
    double fraction() const { return m_fraction; }

    bool operator==(const ModelState &) const = default;

private:
    ModelState(Kind kind, double fraction) : m_kind(kind), m_fraction(fraction) {}
    Kind m_kind = Kind::NotInstalled;
    double m_fraction = 0.0;
};

} // namespace vocari
