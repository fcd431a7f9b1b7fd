#pragma once

class ZrXMLComplexElement;

/// Is told when an element that it was attached to goes away. The element does not own it; it
/// outlives the element or detaches itself before (ZrXMLComplexElement::SetObserver(nullptr)).
class ZrElementObserver {
 public:
  virtual ~ZrElementObserver() = default;
  /// Called first thing in the destruction of the element itself, before its children are
  /// destroyed. What classes derived from the element added is gone already.
  virtual void ElementGoesAway(ZrXMLComplexElement& element) noexcept = 0;
};
