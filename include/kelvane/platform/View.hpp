#pragma once

#include <kelvane/Export.hpp>

#include <memory>

namespace kelvane::platform {

struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    Point center() const { return {x + width / 2, y + height / 2}; }
    bool operator==(const Rect&) const = default;
};

struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;
    static Color black() { return {}; }
    bool operator==(const Color&) const = default;
};

// A platform view. Main queue only.
class KELVANE_EXPORT View {
public:
    virtual ~View();
    virtual Rect bounds() const = 0;
    virtual Point center() const = 0;
    virtual void setCenter(Point center) = 0;
    virtual void addSubview(std::shared_ptr<View> subview) = 0;
};

enum class ActivityIndicatorStyle { medium = 100, large = 101 };

// The spinning indicator shown over a page while it waits. Main queue only.
class KELVANE_EXPORT ActivityIndicator : public View {
public:
    ~ActivityIndicator() override;
    virtual void startAnimating() = 0;
    virtual void stopAnimating() = 0;
    virtual bool isAnimating() const = 0;
    virtual void setHidesWhenStopped(bool hides) = 0;
    virtual void setColor(Color color) = 0;
};

}  // namespace kelvane::platform
