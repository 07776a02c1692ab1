// The bodies of Boost.Asio's non-template functions (BOOST_ASIO_SEPARATE_COMPILATION).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#include <boost/asio/impl/src.hpp>
#pragma GCC diagnostic pop
