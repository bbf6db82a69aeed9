#pragma once

#include <cstddef>

#include "velox/codecs/velGostCryptor.hpp"

/// The published substitution tables of GOST 28147-89, as lines that TryStrToSubstitutionVector
/// reads.
namespace parameter_sets {

struct TParameterSet {
  const char* Name;        ///< what the command line calls it
  const char* Identifier;  ///< the object identifier under which it was published
  const char* Lines[8];    ///< line k replaces nibble k
};

/// From RFC 4357, 11.2 ("test", "cryptopro-a" to "cryptopro-d"), and RFC 7836, appendix C
/// ("tc26-z").
inline constexpr TParameterSet All[] = {
    {"test",
     "1.2.643.2.2.31.0",
     {"42F59108E3BCD7A6", "C9FE813A274D60B5", "D8EC739A15246F0B", "E9B25F710DC6A438",
      "3E59680DAB7C21F4", "8F6B19C5D37A0E24", "9BC0367548EF1A2D", "C652B09D3E7AF418"}},
    {"cryptopro-a",
     "1.2.643.2.2.31.1",
     {"96328B17A4EFC0D5", "37E98AF0526CB4D1", "E462B3D8CF5A0719", "E7ACD13902B4F856",
      "B5198DF0E423C7A6", "3ADC120B75948FE6", "1D297A608C45F3BE", "BAF50CE8623917D4"}},
    {"cryptopro-b",
     "1.2.643.2.2.31.2",
     {"84B135092EACD67F", "012A4D5C973FB86E", "EC0A92DB758F3614", "750DB6123ACF4E98",
      "27CF95AB140D68E3", "83264DEBC17FA095", "52AB91C374D06F8E", "04BE8371A296FD5C"}},
    {"cryptopro-c",
     "1.2.643.2.2.31.3",
     {"1BC29D0F458EA763", "017DB4528EFC9A63", "825049FA37CD6E1B", "36015DA8B297EFC4",
      "8DB0451293CE6FA7", "C9B18E247365A0FD", "A968DE20F35B41C7", "7405A2FEC61BD938"}},
    {"cryptopro-d",
     "1.2.643.2.2.31.4",
     {"FC2A645079ED1B83", "B634CFE27D805A91", "1CB0FE65AD489372", "15ECA70D62B493F8",
      "0C89D2AB73654EF1", "80F325EB1A47C9D6", "306F1E92D8C4BA57", "1A68FB04C3597D2E"}},
    {"tc26-z",
     "1.2.643.7.1.2.5.1.1",
     {"C462A5B9E8D703F1", "68239A5C1E47BD0F", "B3582FADE174C960", "C821D4F670A53E9B",
      "7F5A816D093EB42C", "5DF692CAB78143E0", "8E25691CF4B0DA37", "17ED05834FA69CB2"}},
};

/// The table whose lines these are. False when one of the eight is not a permutation of the 16
/// digits.
template <class TLines>
bool ReadTable(const TLines& Lines, velox::TGostSubstitutionTable& Table) {
  for (size_t k = 0; k < Table.size(); ++k) {
    if (!velox::TGostCryptor::TryStrToSubstitutionVector(Lines[k], Table[k])) return false;
  }
  return true;
}

}  // namespace parameter_sets
