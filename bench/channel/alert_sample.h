#pragma once

// The realistic alert the channel benchmarks share: a body of about 2 KB of
// German and French operator text (every character in ISO-8859-1), three
// recipients, two extra headers, and the event it is rendered from.

#include <map>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"
#include "Toolkit/Utf8Array.h"

namespace AlertSample {

// Paragraphs of about 400 bytes with accented letters; `placeholders` keeps
// a token of the configuration in each of the first four.
inline std::string body(bool placeholders) {
    const char* const paragraphs[] = {
        "Störung auf dem Server %host%: der Dienst antwortet seit mehreren Minuten nicht mehr. "
        "Die Überwachung hat drei aufeinanderfolgende Prüfungen als fehlgeschlagen gewertet; "
        "die letzte Antwortzeit lag über dem Grenzwert von fünf Sekunden. Bitte prüfen Sie "
        "die Protokolle des Dienstes und die Auslastung der Maschine, bevor Sie ihn neu "
        "starten. Betroffene Kunden werden über die Statusseite informiert.\n",
        "Dienst: %service%. Priorität: hoch. Zuständig ist die Bereitschaft des Rechenzentrums "
        "Süd; außerhalb der Geschäftszeiten gilt die Eskalationsliste für Wochenenden und "
        "Feiertage. Größere Änderungen an der Konfiguration müssen vorher mit dem Leiter des "
        "Betriebs abgestimmt werden, auch wenn die Störung dadurch länger dauert. Die "
        "Übergabe an die nächste Schicht erfolgt schriftlich im Ticket.\n",
        "Message: %text%. Le service ne répond plus depuis plusieurs minutes ; la "
        "dernière vérification a échoué après un délai supérieur à cinq secondes. Vérifiez "
        "les journaux, l'espace disque et la mémoire disponible avant de redémarrer. Les "
        "équipes concernées ont été prévenues par téléphone et par courriel ; une mise à jour "
        "suivra dès que la cause sera identifiée. Référence de l'incident : voir ci-dessous.\n",
        "Attribute: %attributes%. Diese Nachricht wurde automatisch erzeugt; Antworten an die "
        "Absenderadresse werden nicht gelesen. Für Rückfragen wenden Sie sich bitte an die "
        "Leitstelle unter der bekannten Rufnummer. Ceci est un message généré "
        "automatiquement : merci de ne pas y répondre. Hinweis zur Vertraulichkeit: der "
        "Inhalt ist nur für den Empfänger bestimmt und darf nicht weitergegeben werden.\n",
        "Nächste Schritte: Prüfung der Zertifikate, Neustart des Dienstes außerhalb der "
        "Spitzenzeiten, Rückmeldung an die Leitstelle. Étapes suivantes : vérification des "
        "certificats, redémarrage du service hors des heures de pointe, compte rendu à la "
        "régie. Geschätzte Dauer: fünfzehn Minuten; durée estimée : un quart d'heure.\n",
    };
    std::string text;
    for (const char* paragraph : paragraphs) {
        std::string p = paragraph;
        const std::string::size_type open = p.find('%');
        if (!placeholders && open != std::string::npos) {
            p.replace(open, p.find('%', open + 1) - open + 1, "web-01.example.org");
        }
        text += p;
    }
    return text;
}

inline std::vector<Tamnet::EmailAddr> recipients() {
    return {Tamnet::EmailAddr("ops@example.org"), Tamnet::EmailAddr("oncall@example.com"),
            Tamnet::EmailAddr("noc-team@example.net")};
}

inline const char* senderName() {
    return "Überwachung Rechenzentrum Süd";
}
inline const char* sender() {
    return "alerts@example.org";
}
inline const char* subject() {
    return "Störung: Dienst httpd auf web-01 antwortet nicht";
}

inline std::map<std::string, std::string> headers() {
    return {{"X-Alert-Severity", "kritisch"}, {"X-Alert-Site", "Rechenzentrum Süd, Brücke 3"}};
}

// The event the placeholders are filled from: about 1 KB of XML.
inline std::string event() {
    return "<?xml version='1.0' encoding='UTF-8'?>"
           "<Event><Id>4711</Id><Severity>critical</Severity><Host>web-01.example.org</Host>"
           "<Service>httpd (Port 443, Zertifikat gültig)</Service>"
           "<Text>Dienst httpd antwortet nicht: Zeitüberschreitung nach 5 s</Text>"
           "<Attributes><A name='region'>eu-süd</A><A name='rack'>r12</A>"
           "<A name='owner'>Betrieb</A><A name='zone'>dmz</A><A name='os'>Debian 12</A>"
           "</Attributes><Time>2024-05-01T12:00:00Z</Time>"
           "<Checks><Check n='1' ms='5012'>timeout</Check><Check n='2' ms='5007'>timeout</Check>"
           "<Check n='3' ms='5010'>timeout</Check></Checks>"
           "<Contact><Name>Bereitschaft Süd</Name><Phone>+49 89 1234 5678</Phone></Contact>"
           "<Notes>Wartungsfenster: Dienstag 02:00–04:00 Uhr; letzte Änderung am Lastverteiler "
           "vor zwei Tagen. Ansprechpartner für die Anwendung ist das Team Kundenportal, für das "
           "Netz die Gruppe Netzbetrieb. Siehe Betriebshandbuch, Abschnitt 4.2.</Notes>"
           "<Source>monitor-02.example.org</Source><Sequence>918273</Sequence>"
           "</Event>";
}

// XPaths of the three XPath tokens, in the order of the placeholders.
inline const char* hostPath() {
    return "/Event/Host";
}
inline const char* servicePath() {
    return "/Event/Service";
}
inline const char* textPath() {
    return "/Event/Text";
}

// The stylesheet token: lists the event's attributes, prefixed by the locale.
inline std::string stylesheet() {
    return "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
           "<xsl:output method='text'/><xsl:param name='locale'/>"
           "<xsl:template match='/'>[<xsl:value-of select='$locale'/>] <xsl:for-each "
           "select='/Event/Attributes/A'><xsl:value-of select='@name'/>=<xsl:value-of "
           "select='.'/>; </xsl:for-each></xsl:template></xsl:stylesheet>";
}

}  // namespace AlertSample
