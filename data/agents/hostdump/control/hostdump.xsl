<?xml version="1.0" encoding="UTF-8"?>
<!-- Turns a hostdump into the list of objects to create on the destination host: one account
     per client, one domain per domain with what it brings along, and the archives to unpack. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="xml" indent="yes" encoding="UTF-8"/>

  <xsl:template match="/hostdump">
    <migration-objects source="{@host}" created="{@created}">
      <xsl:apply-templates select="client"/>
      <xsl:for-each select="not-found">
        <missing type="{@type}" name="{@name}"/>
      </xsl:for-each>
    </migration-objects>
  </xsl:template>

  <xsl:template match="client">
    <account name="{@name}" domains="{count(domain)}">
      <xsl:apply-templates select="domain"/>
    </account>
  </xsl:template>

  <xsl:template match="domain">
    <domain name="{@name}" hosting="{boolean(site)}" mailboxes="{count(mail/mailbox)}"
            site-size="{sum(site/@size)}">
      <xsl:for-each select=".//content">
        <archive file="{@file}" size="{@size}" md5sum="{@md5sum}"/>
      </xsl:for-each>
    </domain>
  </xsl:template>
</xsl:stylesheet>
