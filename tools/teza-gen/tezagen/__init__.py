"""teza-gen: turns a TEZA API schema into the C++ that the runtime links against."""
