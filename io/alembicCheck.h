#pragma once

#include <istream>
#include <string>

namespace corvelle {

/// Looks over an Alembic file before the library opens it, which trusts what it reads: a file from
/// anywhere could make it read or write where nothing is. Gives the first fault as a text, empty
/// for none. Checked are the container (OgawaFile::check) and what is built in it: the headers of
/// objects and properties, that each property has the samples it claims, and that each sample is as
/// long as its type and dimensions say. Cost: reads headers and dimensions alone; linear in the
/// number of samples.
std::string alembicFault(std::istream& in);

}  // namespace corvelle
